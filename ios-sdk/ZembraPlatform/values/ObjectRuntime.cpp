#include <new>

#include <ZembraPlatform/ObjectRuntime.h>

namespace zembra {

const PropertyDescription* Class::property(std::string_view propertyName) const noexcept {
    if (propertyName.empty()) return nullptr;
    for (const PropertyDescription& property : properties)
        if (property.name.front() == propertyName.front() && property.name == propertyName) return &property;
    return superclass == nullptr ? nullptr : superclass()->property(propertyName);
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

/// The object that is to be made.
struct NewObject {
    std::size_t size;
    void* place;
};

/// Allocates the control block with room for the object behind it.
template <class ControlBlock>
struct BlockAllocator {
    using value_type = ControlBlock;

    explicit BlockAllocator(NewObject* object) noexcept : newObject(object) {}
    template <class Other>
    BlockAllocator(const BlockAllocator<Other>& other) noexcept : newObject(other.newObject) {}

    ControlBlock* allocate(std::size_t) {
        static_assert(alignof(ControlBlock) <= __STDCPP_DEFAULT_NEW_ALIGNMENT__);
        const std::size_t offset = roundedUp(sizeof(ControlBlock));
        auto* const block = static_cast<char*>(::operator new(offset + newObject->size));
        newObject->place = block + offset;
        return reinterpret_cast<ControlBlock*>(block);
    }
    void deallocate(ControlBlock* block, std::size_t) noexcept { ::operator delete(block); }
    bool operator==(const BlockAllocator&) const = default;

    NewObject* newObject;  // used by `allocate` only; the control block keeps a copy of this allocator
};

}  // namespace

std::shared_ptr<NSObject> detail::makeObject(std::size_t size, NSObject* (*construct)(void* place)) {
    NewObject newObject{size, nullptr};
    const auto owner = std::allocate_shared<ObjectOwner>(BlockAllocator<ObjectOwner>(&newObject));
    owner->object = construct(newObject.place);
    return {owner, owner->object};
}

}  // namespace zembra
