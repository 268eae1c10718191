#include "Place.hpp"

#include <set>
#include <string>

#include "annotated/Mutex.hpp"
#include "process/Immortal.hpp"

namespace kirofigures::detail {

namespace {

struct Taken {
    annotated::Mutex mutex;
    std::set<int> numbers GUARDED_BY(mutex);
};

Taken& taken() {
    static Immortal<Taken> one;
    return *one;
}

}  // namespace

Place::Place() {
    Taken& all = taken();
    const annotated::Lock lock(all.mutex);
    while (!all.numbers.insert(fNumber).second) ++fNumber;
}

Place::~Place() {
    Taken& all = taken();
    const annotated::Lock lock(all.mutex);
    all.numbers.erase(fNumber);
}

Channels Place::channels() const {
    const std::string prefix = fNumber == 1 ? "/figures" : "/figures/" + std::to_string(fNumber);
    // Where a page says that it is ready is named by the sender.
    return {prefix + "/commands",
            prefix + "/blocks",
            prefix + "/commands/channelReady",
            prefix + "/newView",
            prefix + "/reconnect",
            prefix + "/events",
            {prefix + "/return", prefix + "/return2"}};
}

}  // namespace kirofigures::detail
