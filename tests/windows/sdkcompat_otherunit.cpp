// A second translation unit with the compat header, so that the test sees
// whether its constants link once.
#include "win32/WindowsSdkCompat.h"

const PROPERTYKEY* friendlyNameKeyOfOtherUnit()
{
    return &PKEY_Device_FriendlyName;
}
