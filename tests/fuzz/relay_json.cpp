// The sources of the JSON and URL libraries: the fuzzers need no more of relay/boost.cpp.

#include <boost/json/src.hpp>
#include <boost/url/src.hpp>
