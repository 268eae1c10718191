// scenes NAME [TIMEOUT [UNDER_WAY]]: draws a scene for tests of the page. It prints a line for each
// frame that was asked for, and obeys lines on standard input: "draw", "step COUNT" (and draw),
// "stream" (step and draw until the next line, which "stream over" answers), "record FILE", "quit".
#include <poll.h>
#include <unistd.h>

#include <functional>
#include <iostream>
#include <map>
#include <optional>
#include <sstream>
#include <string>

#include "Scenes.hpp"

namespace {

using namespace std::chrono_literals;
using kirofigures::Drawn;
using kirofigures::Outcome;
using kirofigures::Window;
using Step = std::function<void()>;

/// A scene that stands.
template <void (*add)(Window&)>
Step still(Window& window) {
    add(window);
    return [] {};
}

const std::map<std::string, Step (*)(Window&)> kScenes{{"kinds", still<scenes::addKinds>},
                                                       {"cases", still<scenes::addCases>},
                                                       {"labels", still<scenes::addLabels>},
                                                       {"live", scenes::addLive}};

/// A line of standard input, if there is one; its end is "quit".
std::optional<std::string> nextLine() {
    pollfd input{STDIN_FILENO, POLLIN, 0};
    if (std::cin.rdbuf()->in_avail() <= 0 && poll(&input, 1, 0) <= 0) return {};
    std::string line;
    return std::getline(std::cin, line) ? line : "quit";
}

class Engine {
  public:
    Engine(Window& window, Step step) : fWindow(window), fStep(std::move(step)) {}

    void obey(const std::string& line) {
        std::istringstream words(line);
        std::string verb;
        std::string file;
        int count = 0;
        words >> verb;
        verb == "record" ? words >> file : words >> count;
        if (fIsStreaming) std::cout << "stream over" << std::endl;
        fIsStreaming = verb == "stream";
        fSaid.clear();
        if (verb == "quit") fWindow.close();
        if (verb == "record") fWindow.record(file);
        if (verb == "step") {
            for (int i = 0; i < count; ++i) fStep();
        }
        if (verb == "step" || verb == "draw") draw();
    }
    /// Draws, or lets things come.
    void goOn() {
        if (fIsStreaming) {
            fStep();
            draw();
        }
        if (!fIsStreaming || !fIsSeen) fWindow.wait(10ms);
    }

  private:
    void draw() {
        const Drawn drawn = fWindow.draw();
        fIsSeen = drawn.outcome != Outcome::kNoPage;
        std::ostringstream said;
        said << nameOf(drawn.outcome);
        if (!drawn.reason.empty()) said << ": " << drawn.reason;
        // Of a stream only what is new.
        if (!fIsStreaming || said.str() != fSaid) {
            std::cout << "frame " << drawn.frame << ' ' << said.str() << std::endl;
        }
        fSaid = said.str();
    }

    Window& fWindow;
    const Step fStep;
    bool fIsStreaming = false;
    bool fIsSeen = true;
    std::string fSaid;
};

}  // namespace

int main(int argc, char* argv[]) {
    std::ios::sync_with_stdio(false);
    kirofigures::WindowOptions options;
    options.opensBrowser = false;
    if (argc > 2) options.timeout = std::chrono::duration<double>(std::stod(argv[2]));
    if (argc > 3) options.underWay = std::stoi(argv[3]);
    Window window(options);
    Engine engine(window, kScenes.at(argv[1])(window));
    while (window.isOpen()) {
        const auto line = nextLine();
        line ? engine.obey(*line) : engine.goOn();
    }
}
