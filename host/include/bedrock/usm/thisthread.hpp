#pragma once

#include <functional>
#include <memory>
#include <typeindex>

#include "kirohost/Export.hpp"

namespace bedrock::usm::thisthread {

namespace detail {
/// The calling thread's VM's object of type `type`, made with `make` when it is not there.
KIROHOST_EXPORT void* findOrInsert(std::type_index type,
                                   const std::function<std::shared_ptr<void>()>& make);
}  // namespace detail

/// The one `Storage` of the VM to which the calling thread belongs (the main VM for a thread that
/// belongs to none), default-constructed on first use and destroyed with the VM. The lookup may
/// run on any thread; the object itself is the VM's thread's.
template <typename Storage>
Storage& findOrInsert() {
    return *static_cast<Storage*>(
        detail::findOrInsert(typeid(Storage), [] { return std::make_shared<Storage>(); }));
}

}  // namespace bedrock::usm::thisthread
