// The Asio names for addresses and errors, for what runs no coroutines.
#pragma once

#include <boost/asio/ip/tcp.hpp>
#include <boost/system/error_code.hpp>

namespace relay {

namespace asio = boost::asio;
using boost::system::error_code;

using Tcp = asio::ip::tcp;

} // namespace relay
