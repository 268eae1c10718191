#include <kirogateway/Gateway.hpp>

/// Serves on a free port, and says by its exit status whether it does.
int main() {
    const kirogateway::Gateway gateway({});
    return gateway.port() != 0 ? 0 : 1;
}
