#pragma once
// Moved to tests/support, beside the fake background application.
#include "support/MockDelegate.h"
