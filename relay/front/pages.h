// The pages that the relay itself answers with.
#pragma once

#include <string>
#include <string_view>

namespace relay {

// Why a request gets a page of the relay instead of the device's answer.
struct PageReason {
    unsigned status = 0;
    std::string text;      // for the user: one or two sentences
    std::string_view note; // for the access log: a word
};

// A whole HTTP response. `with_body` false: for HEAD.
std::string make_page(const PageReason& reason, bool keep_alive, bool with_body);

PageReason no_memory();

std::string_view reason_phrase(unsigned status);

} // namespace relay
