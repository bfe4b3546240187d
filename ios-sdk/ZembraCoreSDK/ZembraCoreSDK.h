#pragma once

// Everything that the SDK publishes, in one line; without run-time types (-fno-rtti) all but data objects.

#include <ZembraCoreSDK/NSError+ZMBUtility.h>
#include <ZembraCoreSDK/NSError+ZembraCoreSDK.h>
#ifdef __cpp_rtti
#include <ZembraCoreSDK/QVDataObject+Diagnosis.h>
#include <ZembraCoreSDK/QVDataObject.h>
#endif
#include <ZembraCoreSDK/UIDevice+ZMBUtility.h>
#include <ZembraCoreSDK/Version.h>
#include <ZembraCoreSDK/ZMBApplication.h>
#include <ZembraCoreSDK/ZMBSDKAuthManager.h>
#include <ZembraCoreSDK/ZembraCoreSDK_vers.h>
