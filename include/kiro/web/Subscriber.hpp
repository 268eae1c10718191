#pragma once

#include <memory>

#include "kiro/Export.hpp"
#include "kiroutils/EventDispatcher.hpp"

namespace kiro::web {

/// A subscription at the transport. Implementations end it in their destructor.
class KIROWEB_EXPORT InternalSubscriberData {
  public:
    InternalSubscriberData() = default;
    InternalSubscriberData(const InternalSubscriberData&) = delete;
    InternalSubscriberData& operator=(const InternalSubscriberData&) = delete;
    virtual ~InternalSubscriberData();
};

/// Owns one subscription, from the return of `subscribe` until its destruction: the callback is
/// detached and, if this was the channel's first subscriber, the transport's subscription ends.
/// A callback already running on another thread is not waited for. May be destroyed on any
/// thread, inside its own callback too.
class KIROWEB_EXPORT Subscriber {
  public:
    /// Takes both over; `data` may be empty.
    Subscriber(kiroutils::EventDispatcher::Listener listener,
               std::unique_ptr<InternalSubscriberData> data);
    Subscriber(const Subscriber&) = delete;
    Subscriber& operator=(const Subscriber&) = delete;
    ~Subscriber();

    /// Detaches the callback at once; the transport's subscription stays.
    void destroyEventListener();

  private:
    kiroutils::EventDispatcher::Listener fListener;
    std::unique_ptr<InternalSubscriberData> fInternalData;
};

}  // namespace kiro::web
