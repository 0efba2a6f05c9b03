#pragma once

#include <string>

// A throw-away certificate authority and server certificate, made in memory at run time (ECDSA,
// P-256). Two authorities share nothing but the name.

struct certificates {
    std::string root;   // the authority's certificate, PEM
    std::string server; // the server's certificate, issued by it, PEM
    std::string key;    // the server's private key, PEM
};

certificates make_certificates();

// The same set on every call: making one takes a while, and most tests need no second.
const certificates& shared_certificates();
