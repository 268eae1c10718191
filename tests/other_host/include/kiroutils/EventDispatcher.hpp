#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <string>

namespace kiroutils {

class EventData {
  public:
    virtual ~EventData();
};

class EventDispatcher {
    struct Entry;
    struct Entries;

  public:
    using Callback = std::function<void(const std::string& name, const EventData& data)>;

    class Listener {
      public:
        Listener() = default;
        Listener(Listener&&) = default;
        Listener& operator=(Listener&& other) noexcept;
        ~Listener();

      private:
        friend class EventDispatcher;
        std::weak_ptr<Entries> fEntries;
        std::shared_ptr<Entry> fEntry;
    };

    EventDispatcher();
    std::size_t numListeners(const std::string& name) const;
    Listener createListener(const std::string& name, Callback callback);
    void send(const std::string& name, const EventData& data) const;

  private:
    std::shared_ptr<Entries> fEntries;
};

}  // namespace kiroutils
