#include "tests/support/standin/UploadForm.h"

#include <exception>
#include <stdexcept>

namespace kolvan::test {
namespace {

constexpr std::size_t kLongestField = 1024;

}  // namespace

void UploadForm::beginPart(const std::string& name, const std::string& fileName) {
    guard([&] {
        ++parts;
        if (parts > 1) {
            fieldName = name;
            fieldValue.clear();
            return;
        }
        remoteDirectory = name;
        sentFileName = fileName;
        if (store == nullptr) {
            throw std::runtime_error("This server keeps no uploads.");
        }
        file = store->begin();
    });
}

void UploadForm::append(std::string_view data) {
    guard([&] {
        if (parts == 1) {
            file->write(data);
        } else {
            fieldValue.append(data.substr(0, kLongestField - fieldValue.size()));
        }
    });
}

std::optional<UploadRecord> UploadForm::keep() {
    std::optional<UploadRecord> upload;
    guard([&] {
        if (!file || parts != 2 || fieldName != "submit" || fieldValue != "send") {
            throw std::runtime_error("An upload is one file and then the field submit=send.");
        }
        upload = file->keep(remoteDirectory, sentFileName);
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
