#include "Branch.h"

std::shared_ptr<zembra::NSObject> branchMadeInLibrary(zembra::Value json) {
    return Branch::objectWithJSON(std::move(json));
}

const zembra::ClassDescription& branchClassInLibrary() {
    return Branch::staticClass();
}
