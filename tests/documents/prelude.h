#pragma once

// What the blocks of the documents may take for granted.

#include <chrono>
#include <iostream>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <ZembraCoreSDK/ZembraCoreSDK.h>

#include <ZembraPlatform/AFHTTPSessionManager.h>
#include <ZembraPlatform/MainQueue.h>
#include <ZembraPlatform/NSDateFormatter.h>
#include <ZembraPlatform/NSJSONSerialization.h>
