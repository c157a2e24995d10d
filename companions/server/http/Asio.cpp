// The functions of Asio and Beast that are no templates, compiled once: kolvan_asio says so.
#include "companions/server/http/Awaitable.h"

#include <boost/asio/impl/src.hpp>
#include <boost/beast/src.hpp>
