#include <boost/signals2/signal.hpp>
#include <utility>

#include "bedrock/memmgr/leaks.hpp"
#include "kirohost/Controls.hpp"
#include "process/Immortal.hpp"

namespace {

using Signal = boost::signals2::signal<void()>;

Signal& snapshotEvent() {
    static Immortal<Signal> immortal;
    return *immortal;
}

}  // namespace

namespace bedrock::memmgr::leaks {

boost::signals2::connection registerListenerForSnapshotEvent(std::function<void()> listener) {
    return snapshotEvent().connect(std::move(listener));
}

}  // namespace bedrock::memmgr::leaks

namespace kirohost {

void takeMemorySnapshot() { snapshotEvent()(); }

}  // namespace kirohost
