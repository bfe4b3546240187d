#pragma once

#include <memory>

#include <ZembraCoreSDK/QVDataObject.h>

/// A model class in a shared library of its own. Nothing of it is exported: whoever includes this header has
/// code and a description of the class of his own.
class Branch : public zembra::QVDataObject {
    ZMB_DATA_OBJECT(Branch, zembra::QVDataObject)

public:
    ZMB_PROPERTY(zembra::NSString, streetName);
    ZMB_PROPERTY(Branch, nextBranch);
};

/// Of the library's class.
ZEMBRA_EXPORT std::shared_ptr<zembra::QVDataObject> branchMadeInLibrary(zembra::Value json);
