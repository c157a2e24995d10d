#include "tests/support/standin/UploadForm.h"

#include "companions/server/protocol/UploadPath.h"

#include <exception>
#include <stdexcept>
#include <utility>

namespace kolvan::test {
namespace {

constexpr std::size_t kLongestField = 1024;

}  // namespace

UploadForm::UploadForm(std::string_view contentType, UploadStore* uploadStore)
    : store(uploadStore) {
    if (const auto boundary = server::protocol::formBoundary(contentType)) {
        server::protocol::FormListener& self = *this;
        reader.emplace(*boundary, self);
    } else {
        failureText = "An upload must be a form.";
    }
}

void UploadForm::put(std::string_view piece) {
    guard([&] { reader->put(piece); });
}

void UploadForm::beginPart(const std::string& name, const std::optional<std::string>& fileName) {
    ++parts;
    if (parts > 1) {
        fieldName = name;
        fieldValue.clear();
        return;
    }
    remoteDirectory = name;
    sentFileName = fileName.value_or("");
    if (store == nullptr) {
        throw std::runtime_error("This server keeps no uploads.");
    }
    auto safe = server::protocol::safeUploadPath(remoteDirectory, sentFileName);
    if (!safe) {
        throw std::runtime_error("This name of a file cannot be trusted.");
    }
    path = std::move(*safe);
    file = store->begin();
}

void UploadForm::data(std::string_view piece) {
    if (parts == 1) {
        file->write(piece);
    } else {
        fieldValue.append(piece.substr(0, kLongestField - fieldValue.size()));
    }
}

std::optional<UploadRecord> UploadForm::keep() {
    std::optional<UploadRecord> upload;
    guard([&] {
        reader->finish();
        if (!file || parts != 2 || fieldName != "submit" || fieldValue != "send") {
            throw std::runtime_error("An upload is one file and then the field submit=send.");
        }
        const std::filesystem::path stored = file->keep(path);
        upload = UploadRecord{remoteDirectory, sentFileName, file->size(), stored};
    });
    return upload;
}

void UploadForm::guard(const std::function<void()>& action) {
    if (!failureText.empty()) {
        return;
    }
    try {
        action();
    } catch (const std::exception& error) {
        failureText = error.what();
    }
}

}  // namespace kolvan::test
