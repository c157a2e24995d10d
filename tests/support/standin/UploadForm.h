#pragma once

#include "tests/support/standin/UploadStore.h"

#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace kolvan::test {

/// The form of one upload while it is being received: first the file, in a part whose name is the
/// remote directory, then the field "submit" with the value "send". The file goes to disk piece by
/// piece; when the form is dropped before `keep()`, nothing of it stays.
///
/// After a failure the rest is taken and forgotten, so that the form can be read to its end: a
/// client that is cut off in the middle would see a broken connection instead of the reason.
class UploadForm {
public:
    /// @param store where the file goes; null when uploads are not wanted. Outlives the form
    explicit UploadForm(UploadStore* uploadStore) : store(uploadStore) {}

    /// Begins the next part.
    void beginPart(const std::string& name, const std::string& fileName);

    /// Continues the part.
    void append(std::string_view data);

    /// Gives the file its place.
    /// @return nothing when the form is not an upload or something failed
    std::optional<UploadRecord> keep();

    /// Fails the form for a reason of the caller's.
    void fail(const std::string& reason) { failureText = reason; }

    /// Why there is no upload; empty while all is well.
    const std::string& failure() const { return failureText; }

    /// The file's name as it was sent.
    const std::string& fileName() const { return sentFileName; }

private:
    void guard(const std::function<void()>& action);

    UploadStore* const store;
    std::size_t parts = 0;
    std::string remoteDirectory;
    std::string sentFileName;
    std::unique_ptr<UploadStore::Incoming> file;
    std::string fieldName;   // of the part after the file
    std::string fieldValue;  // its content, as far as it is of interest
    std::string failureText;
};

}  // namespace kolvan::test
