#pragma once

// Everything that the SDK publishes, in one line.

#include <ZembraCoreSDK/NSError+ZMBUtility.h>
#include <ZembraCoreSDK/NSError+ZembraCoreSDK.h>
#include <ZembraCoreSDK/QVDataObject.h>
#include <ZembraCoreSDK/UIDevice+ZMBUtility.h>
#include <ZembraCoreSDK/Version.h>
#include <ZembraCoreSDK/ZMBApplication.h>
#include <ZembraCoreSDK/ZMBSDKAuthManager.h>
#include <ZembraCoreSDK/ZembraCoreSDK_vers.h>
