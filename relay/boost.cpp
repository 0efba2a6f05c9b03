// Asio, Beast, JSON and URL, compiled once instead of in every file.

#include <boost/asio/impl/src.hpp>
#include <boost/asio/ssl/impl/src.hpp>
#include <boost/beast/src.hpp>
#include <boost/json/src.hpp>
#include <boost/url/src.hpp>
