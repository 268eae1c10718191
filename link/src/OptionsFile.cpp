#include <boost/program_options.hpp>
#include <filesystem>
#include <fstream>
#include <stdexcept>

#include "kirolink/Options.hpp"
#include "text/Escape.hpp"

namespace kirolink {
namespace {

std::vector<std::string> listOf(const std::string& text) {
    constexpr const char* kSeparators = ", \t";
    std::vector<std::string> list;
    for (auto at = text.find_first_not_of(kSeparators); at != std::string::npos;) {
        const auto end = text.find_first_of(kSeparators, at);
        list.push_back(text.substr(at, end - at));
        at = text.find_first_not_of(kSeparators, end);
    }
    return list;
}

}  // namespace

Options loadOptions(const std::string& file) {
    namespace po = boost::program_options;
    const auto fail = [&file](const std::string& why) {
        throw std::runtime_error(text::escaped(file) + ": " + text::escaped(why));
    };
    Options options;
    std::string servers;
    po::options_description known;
    known.add_options()("servers", po::value(&servers)->required())(
        "session", po::value(&options.session)->required())(
        "credentials", po::value(&options.credentials))("ca", po::value(&options.caFile));
    std::ifstream stream(file);
    if (!stream) fail("it cannot be read");
    try {
        po::variables_map values;
        po::store(po::parse_config_file(stream, known), values);
        po::notify(values);
    } catch (const po::error& error) {
        fail(error.what());
    }
    if (stream.bad()) fail("it cannot be read");
    options.servers = listOf(servers);
    const auto folder = std::filesystem::path(file).parent_path();
    for (auto* name : {&options.credentials, &options.caFile}) {
        if (!name->empty()) *name = (folder / *name).string();
    }
    return options;
}

}  // namespace kirolink
