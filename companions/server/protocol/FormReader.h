#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace kolvan::server::protocol {

/// Is told what a form consists of, in its order. What it throws goes through to whoever puts the
/// form in.
class FormListener {
public:
    virtual ~FormListener() = default;

    /// A part begins. Name and file name are as they were sent, to be trusted in nothing.
    /// @param fileName nothing when the part is a plain field
    virtual void beginPart(const std::string& name, const std::optional<std::string>& fileName) = 0;

    /// Continues the part.
    virtual void data(std::string_view piece) = 0;

    /// The part is complete.
    virtual void endPart() = 0;
};

/// Finds the boundary in the header field "Content-Type" of a form.
/// @return nothing when it is no multipart/form-data with a boundary as RFC 2046 allows it
std::optional<std::string> formBoundary(std::string_view contentType);

/// Reads a form (multipart/form-data, RFC 7578) that comes in pieces, and keeps no more of it than
/// the head of a part.
class FormReader {
public:
    /// Bytes of a part's header fields.
    static constexpr std::size_t kLongestHead = std::size_t{8} * 1024;
    static constexpr std::size_t kMostParts = 16;

    /// @param events outlives the reader
    FormReader(const std::string& boundary, FormListener& events);

    /// Reads the next piece, which may end anywhere.
    /// @throws ProtocolError when it is no form; nothing can be put in any more then
    void put(std::string_view piece);

    /// Ends the form.
    /// @throws ProtocolError when it is not complete
    void finish() const;

private:
    enum class State {
        Preamble,       // before the first boundary
        AfterBoundary,  // "--" or a line end has to come
        Head,
        Data,
        Epilogue,  // after the last boundary
    };

    // Each takes something off `rest`, and returns whether there may be more to take.
    bool takeSome();
    bool skipToBoundary(bool isData);
    bool takeAfterBoundary();
    bool takeHead();
    void skip(std::size_t length);
    void beginPart(std::string_view head);
    [[noreturn]] void fail(const char* what, std::size_t ahead = 0) const;

    FormListener& listener;
    const std::string delimiter;  // line end, dashes and the boundary
    State state = State::Preamble;
    std::string_view rest;  // of what is being put in
    std::string kept;       // for the next piece: a head, or what may be the begin of a delimiter
    std::size_t parts = 0;
    std::int64_t position;  // bytes read, those kept not counted
};

}  // namespace kolvan::server::protocol
