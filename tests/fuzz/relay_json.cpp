// The JSON library's own sources, for the fuzzers: relay/boost.cpp has three libraries more.

#include <boost/json/src.hpp>
