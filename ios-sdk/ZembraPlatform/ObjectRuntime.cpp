#include <new>

#include <ZembraPlatform/ObjectRuntime.h>

namespace zembra {

const PropertyDescription* Class::property(std::string_view propertyName) const noexcept {
    if (propertyName.empty()) return nullptr;
    for (const PropertyDescription& property : properties)
        if (property.name.front() == propertyName.front() && property.name == propertyName) return &property;
    return superclass == nullptr ? nullptr : superclass()->property(propertyName);
}

namespace {

template <class Tag>
constexpr Class tagClass(std::string_view name) {
    return {name, &typeid(Tag), nullptr, {}, nullptr};
}

}  // namespace

const Class& NSString::staticClass() noexcept {
    static constexpr Class description = tagClass<NSString>("NSString");
    return description;
}

const Class& NSNumber::staticClass() noexcept {
    static constexpr Class description = tagClass<NSNumber>("NSNumber");
    return description;
}

const Class& NSDate::staticClass() noexcept {
    static constexpr Class description = tagClass<NSDate>("NSDate");
    return description;
}

const Class& NSArray::staticClass() noexcept {
    static constexpr Class description = tagClass<NSArray>("NSArray");
    return description;
}

const Class& NSDictionary::staticClass() noexcept {
    static constexpr Class description = tagClass<NSDictionary>("NSDictionary");
    return description;
}

// Creation
// --------------------------------------------------------------------------------------------------------

namespace {

constexpr std::size_t roundedUp(std::size_t size) noexcept {
    constexpr std::size_t alignment = __STDCPP_DEFAULT_NEW_ALIGNMENT__;
    return (size + alignment - 1) / alignment * alignment;
}

/// What stands in the control block in the object's stead: it ends the object.
struct ObjectOwner {
    ObjectOwner() = default;
    ObjectOwner(const ObjectOwner&) = delete;
    ObjectOwner& operator=(const ObjectOwner&) = delete;
    ~ObjectOwner() {
        if (object != nullptr) object->~NSObject();
    }

    NSObject* object = nullptr;
};

/// Allocates the control block with room for the object behind it.
template <class ControlBlock>
struct BlockAllocator {
    using value_type = ControlBlock;

    BlockAllocator(std::size_t size, void** place) noexcept : objectSize(size), objectPlace(place) {}
    template <class Other>
    BlockAllocator(const BlockAllocator<Other>& other) noexcept
        : objectSize(other.objectSize), objectPlace(other.objectPlace) {}

    ControlBlock* allocate(std::size_t) {
        static_assert(alignof(ControlBlock) <= __STDCPP_DEFAULT_NEW_ALIGNMENT__);
        auto* const block = static_cast<char*>(::operator new(roundedUp(sizeof(ControlBlock)) + objectSize));
        *objectPlace = block + roundedUp(sizeof(ControlBlock));
        return reinterpret_cast<ControlBlock*>(block);
    }
    void deallocate(ControlBlock* block, std::size_t) noexcept { ::operator delete(block); }
    bool operator==(const BlockAllocator&) const = default;

    std::size_t objectSize;
    void** objectPlace;  // used by `allocate` only
};

}  // namespace

std::shared_ptr<NSObject> detail::makeObject(std::size_t size, NSObject* (*construct)(void* place)) {
    void* place = nullptr;
    const auto owner = std::allocate_shared<ObjectOwner>(BlockAllocator<ObjectOwner>(size, &place));
    owner->object = construct(place);
    return {owner, owner->object};
}

}  // namespace zembra
