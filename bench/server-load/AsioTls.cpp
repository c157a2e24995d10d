// The functions of Asio's TLS that are no templates, compiled once; see kolvan_asio.
#include "companions/server/http/Awaitable.h"

#include <boost/asio/ssl/impl/src.hpp>
