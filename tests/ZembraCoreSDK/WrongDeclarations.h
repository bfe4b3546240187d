// What the declarations stand on; WrongDeclarations.cmake says what a compiler has to answer to each.

#include <string>

#include <ZembraCoreSDK/QVDataObject.h>

using namespace zembra;

class Base : public QVDataObject {
    ZMB_DATA_OBJECT(Base, zembra::QVDataObject)
};
class Middle : public Base {
    ZMB_DATA_OBJECT(Middle, Base)
};
class Lineless : public Middle {};
class Incomplete;
