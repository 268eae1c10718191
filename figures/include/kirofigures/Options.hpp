#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace kirofigures {

/// How a window serves its page and waits for it.
struct WindowOptions {
    std::string title = "Figures";  ///< of the page; UTF-8

    // --- Where the page is served ---------------------------------------------------------------
    std::string address = "127.0.0.1";  ///< numeric; another than loopback is a choice
    std::uint16_t port = 0;             ///< 0: one that is free
    /// PEM files, the key without a passphrase; both empty: no TLS.
    std::string certificateFile;
    std::string keyFile;
    /// Further hosts as they stand in a request ("plot.example:8080"), and further origins. With an
    /// address that stands for all of the machine's ("0.0.0.0") links name the first host.
    std::vector<std::string> extraHosts;
    std::vector<std::string> extraOrigins;
    /// Origins whose pages may show this one in a frame ("http://localhost:8888"), as notebooks do.
    std::vector<std::string> frameAncestors;
    /// For how many pages that look at once there is room.
    std::size_t pages = 32;
    /// A file that keeps what lets a page in, so that its tab comes back after a restart; the port
    /// has to be the same, too. Made when it is not there, and readable for its owner only. Empty:
    /// each start has a link of its own.
    std::string tokenFile;
    /// A file that leads to a NATS cluster: gateways on other machines serve the page then, instead
    /// of one in this process. Lines "servers = HOST:PORT, ...", "session = NAME", "credentials =
    /// FILE", "ca = FILE"; `tokenFile` holds here as well, and what stands above does not. For each
    /// gateway that serves the page a link is printed; no browser is opened. Empty: the file that
    /// the environment variable KIROWEB_LINK names, if it is there.
    std::string link;
    /// Off: nothing is served. For a program that has a gateway, or a client, of its own.
    bool serves = true;

    // --- How the page is found ------------------------------------------------------------------
    bool printsLink = true;    ///< on standard output
    bool opensBrowser = true;  ///< when there is a graphical session

    // --- What is kept ---------------------------------------------------------------------------
    /// A file for a recording from the beginning on, see `Window::record`; empty: none.
    std::string recording;
    /// How many bytes of a recording may wait for the disk. What pages are sent at once must fit.
    std::size_t recordingQueue = std::size_t{64} << 20U;

    // --- How the engine waits -------------------------------------------------------------------
    /// How long the page may take for a frame; above 0. Of no effect beyond the time that the host
    /// waits for a token: 60 s unless set there.
    std::chrono::duration<double> timeout{10};
    /// Whether the first draw waits for a page; later ones never do.
    bool waitsForPage = true;
    /// How many frames may be under way: 1 or 2.
    int underWay = 1;
    /// Whether SIGINT and SIGTERM close the window instead of ending the process. A second signal
    /// ends it as usual.
    bool handlesSignals = true;
};

}  // namespace kirofigures
