#pragma once

namespace kiro::web {

class PubSubInterface;

/// Whether `PubSubFactory::pubsubInstance()` has made its endpoint: from then on any thread gets
/// it at once. Any thread.
bool isEndpointMade();

/// The endpoint that `PubSubFactory::pubsubInstance()` returns, for a caller that does not keep it.
/// Any thread, once it is made.
PubSubInterface& theEndpoint();

}  // namespace kiro::web
