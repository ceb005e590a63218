#include "platform/KeyboardState.h"

namespace nimbrel {

namespace {

std::function<bool()>& source()
{
    static std::function<bool()> installed;
    return installed;
}

} // namespace

bool alternateKeyDown()
{
    return source() ? source()() : false;
}

void setAlternateKeySource(std::function<bool()> newSource)
{
    source() = std::move(newSource);
}

} // namespace nimbrel
