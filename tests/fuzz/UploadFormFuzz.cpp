// The first line of the input is a boundary; the rest is a form as a server reads it, and then the
// content of a file within one.
#include "companions/server/protocol/Base64Decoder.h"
#include "companions/server/protocol/FormReader.h"
#include "companions/server/protocol/UploadPath.h"
#include "tests/fuzz/Fuzz.h"

#include <algorithm>
#include <optional>
#include <string>
#include <string_view>

namespace {

using namespace kolvan::fuzz;
using namespace kolvan::server::protocol;

void checkPath(const std::string& directory, const std::string& name) {
    const std::optional<std::string> path = safeUploadPath(directory, name);
    if (!path) {
        return;
    }
    require(path->size() <= kLongestPath, "a path is not too long");
    require(path->find('\0') == std::string::npos && path->find('\\') == std::string::npos,
            "a path has no characters with a meaning");
    const auto parts = split(*path, '/');
    require(parts.back() == name, "a file keeps its name");
    for (const std::string& part : parts) {
        require(!part.empty() && part.front() != '.', "no part of a path leads elsewhere");
    }
}

class Notes final : public FormListener {
public:
    void beginPart(const std::string& name, const std::optional<std::string>& fileName) override {
        require(!inPart, "parts do not overlap");
        inPart = true;
        all += '(' + name + '|' + fileName.value_or("") + ':';
        checkPath(name, fileName.value_or(""));
    }
    void data(std::string_view piece) override {
        require(inPart && !piece.empty(), "data belong to a part");
        all += piece;
        content += piece;
    }
    void endPart() override {
        require(inPart, "a part ends once");
        inPart = false;
        all += ')';
    }

    std::string all;
    std::string content;

private:
    bool inPart = false;
};

// What the listener was told, and the error.
std::string read(const std::string& boundary, std::string_view form, std::size_t length,
                 std::string* content = nullptr) {
    Notes notes;
    FormReader reader(boundary, notes);
    std::string error;
    try {
        while (!form.empty()) {
            reader.put(form.substr(0, length));
            form.remove_prefix(std::min(length, form.size()));
        }
        reader.finish();
    } catch (const ProtocolError& failure) {
        error = failure.what();
    }
    if (content != nullptr) {
        *content = notes.content;
    }
    return notes.all + error;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string input(reinterpret_cast<const char*>(data), size);
    const std::size_t line = input.find('\n');
    const std::optional<std::string> boundary =
        formBoundary("multipart/form-data; boundary=\"" + input.substr(0, line) + '"');
    if (!boundary || line == std::string::npos) {
        return -1;
    }
    const std::string form = input.substr(line + 1);

    const std::string whole = read(*boundary, form, form.size() + 1);
    for (const std::size_t length : {1U, 5U, 64U}) {
        requireEqual(whole, read(*boundary, form, length), "pieces make no difference");
    }

    if (form.find("--" + *boundary) == std::string::npos) {
        const std::string begin = "--" + *boundary +
                                  "\r\nContent-Disposition: form-data; name=\"a\"; "
                                  "filename=\"b\"\r\n\r\n";
        std::string content;
        const std::string read7 =
            read(*boundary, begin + form + "\r\n--" + *boundary + "--\r\n", 7, &content);
        requireEqual("(a|b:" + form + ')', read7, "a file arrives as it was sent");
        requireEqual(form, content, "and nothing besides");
    }
    return 0;
}
