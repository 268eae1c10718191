#include "Captures.hpp"

/// The process-wide endpoint is the default one, over the host's message service.
int main(int argc, char** argv) { return support::runAllTests(argc, argv); }
