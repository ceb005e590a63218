#pragma once
// Moved to tests/support: the fake background application serves every test folder.
#include "support/FakeAppPeer.h"
