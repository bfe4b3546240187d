#include "Branch.h"

std::shared_ptr<zembra::QVDataObject> branchMadeInLibrary(zembra::Value json) {
    return Branch::objectWithJSON(std::move(json));
}
