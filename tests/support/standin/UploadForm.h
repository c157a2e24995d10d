#pragma once

#include "companions/server/protocol/FormReader.h"
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
class UploadForm : private server::protocol::FormListener {
public:
    /// @param contentType of the request
    /// @param store where the file goes; null when uploads are not wanted. Outlives the form
    UploadForm(std::string_view contentType, UploadStore* uploadStore);

    UploadForm(const UploadForm&) = delete;
    UploadForm& operator=(const UploadForm&) = delete;

    /// Takes the next piece of the request's body, which may end anywhere.
    void put(std::string_view piece);

    /// Ends the form and gives the file its place.
    /// @return nothing when the form is not an upload or something failed
    std::optional<UploadRecord> keep();

    /// Why there is no upload; empty while all is well.
    const std::string& failure() const { return failureText; }

    /// The file's name as it was sent.
    const std::string& fileName() const { return sentFileName; }

private:
    void beginPart(const std::string& name, const std::optional<std::string>& fileName) override;
    void data(std::string_view piece) override;
    void endPart() override {}

    void guard(const std::function<void()>& action);

    UploadStore* const store;
    std::optional<server::protocol::FormReader> reader;
    std::size_t parts = 0;
    std::string remoteDirectory;
    std::string sentFileName;
    std::string path;  // made of both, to be trusted
    std::unique_ptr<UploadStore::Incoming> file;
    std::string fieldName;   // of the part after the file
    std::string fieldValue;  // its content, as far as it is of interest
    std::string failureText;
};

}  // namespace kolvan::test
