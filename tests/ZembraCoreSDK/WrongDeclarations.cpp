// One wrong declaration for each FAULT; WrongDeclarations.cmake says what a compiler has to answer.
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

#if FAULT == 0  // none
class Model : public Middle {
    ZMB_DATA_OBJECT(Model, Middle)
    ZMB_PROPERTY(NSString, name);
};
#elif FAULT == 1
class Model : public Middle {
    ZMB_PROPERTY(NSString, name);
};
#elif FAULT == 2
class Model : public QVDataObject {
    ZMB_PROPERTY(NSString, name);
};
#elif FAULT == 3
class Model : public Middle {
    ZMB_DATA_OBJECT(Middle, Base)
};
#elif FAULT == 4
class Model : public Middle {
    ZMB_DATA_OBJECT(Model, Base)
};
#elif FAULT == 5
class Model : public Middle {
    ZMB_DATA_OBJECT(Model, std::string)
};
#elif FAULT == 6
class Model : public Lineless {
    ZMB_DATA_OBJECT(Model, Lineless)
};
#elif FAULT == 7
class Model : public Middle {
    ZMB_DATA_OBJECT(Model, Middle)
    ZMB_PROPERTY(Lineless, other);
};
#elif FAULT == 8
class Model : public Middle {
    ZMB_DATA_OBJECT(Model, Middle)
    ZMB_PROPERTY(Incomplete, other);
};
#elif FAULT == 9
class Model : public Middle {
    ZMB_DATA_OBJECT(Model, Middle)
    ZMB_PROPERTY(std::string, name);
};
#elif FAULT == 10
class Model : public Middle {
    ZMB_DATA_OBJECT(Model, Middle)
    ZMB_PROPERTY(NSString, größe);
};
#elif FAULT == 11
class Model : public Middle {
    ZMB_DATA_OBJECT(Model, Middle)
    Value arrayPropertyForKey(const Value& values);
};
#elif FAULT == 12
class Model : public Middle {
    ZMB_DATA_OBJECT(Model, Middle)
    bool arrayPropertyForKey(std::string_view key, const Value& values);
};
#elif FAULT == 13
class Model : public Middle {
    ZMB_DATA_OBJECT(Model, Middle)
    Value dateFormatter() const;
};
#elif FAULT == 14
class Model : public std::string {
    ZMB_DATA_OBJECT(Model, std::string)
};
#endif
