#include "usb/CompositorLock.h"

// Every member is defined in the header, so that the scopes cost no calls.
