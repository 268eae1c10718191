// Sequences of arbitrary commands and blocks: the figures that they make hold together.
#include <string>

#include "Fuzz.hpp"
#include "Scene.hpp"

namespace {

using fuzz::require;
using namespace recording_tool;

void check(const Scene& scene) {
    const auto& objects = scene.objects();
    for (const auto& [id, object] : objects) {
        require(object.parent == 0 || objects.contains(object.parent), "nothing is an orphan");
        require(object.columns.size() == object.isSingle.size(), "each column has its type");
        for (const auto& [name, values] : object.columns) {
            const auto length = object.columns.begin()->second.size();
            require(values.size() == length, "columns are of one length");
            require(length <= object.given, "no element is there that was not given");
            require(object.isSingle.contains(name), "a column and its type have one name");
        }
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    FuzzedDataProvider input(data, size);
    Scene scene;
    while (input.remaining_bytes() > 0) {
        const auto command = input.ConsumeRandomLengthString();
        const auto block = input.ConsumeRandomLengthString();
        try {
            scene.apply(membersOf(command), block);
        } catch (const WrongText& wrong) {
            require(*wrong.what != '\0', "a refusal says why");
            return 0;  // so does who reads a recording
        }
        check(scene);
    }
    return 0;
}
