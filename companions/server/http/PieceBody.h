#pragma once

#include <boost/beast/core/error.hpp>
#include <boost/beast/http/message.hpp>
#include <boost/optional/optional.hpp>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string_view>

namespace kolvan::server::http {

/// A body for Beast's parser that copies nothing: after each call of the parser it says which of
/// the received bytes belong to the body.
struct PieceBody {
    struct value_type {
        std::size_t most = 0;    ///< longest piece that is wanted
        std::string_view piece;  ///< in what the parser was given
    };

    /// As Beast asks for it.
    class reader {
    public:
        template <bool isRequest, typename Fields>
        reader(boost::beast::http::header<isRequest, Fields>& /*head*/, value_type& content)
            : body(content) {}

        void init(const boost::optional<std::uint64_t>& /*length*/,
                  boost::beast::error_code& error) {
            error = {};
        }

        template <typename Buffer>
        std::size_t put(const Buffer& received, boost::beast::error_code& error) {
            error = {};
            body.piece = {static_cast<const char*>(received.data()),
                          std::min(received.size(), body.most)};
            return body.piece.size();
        }

        void finish(boost::beast::error_code& error) { error = {}; }

    private:
        value_type& body;
    };
};

}  // namespace kolvan::server::http
