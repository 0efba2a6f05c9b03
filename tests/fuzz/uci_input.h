#pragma once

#include <uci.h>

#include "fuzz.h"

// A UCI package from bytes, as libuci reads it from a file.
class uci_input {
public:
    uci_input(const char* name, const std::string& text) : m_context(uci_alloc_context()) {
        REQUIRE(m_context);
        if (text.empty()) {
            return; // not a file of fmemopen's
        }
        FILE* file = fmemopen(const_cast<char*>(text.data()), text.size(), "r");
        REQUIRE(file);
        if (uci_import(m_context, file, name, &m_package, true) != UCI_OK) {
            m_package = nullptr;
        }
        fclose(file);
    }
    ~uci_input() { uci_free_context(m_context); }
    uci_input(const uci_input&) = delete;
    uci_input& operator=(const uci_input&) = delete;

    uci_context* context() const { return m_context; }
    const uci_package* package() const { return m_package; } // null: it is not UCI

private:
    uci_context* m_context;
    uci_package* m_package = nullptr;
};

// A value between single quotes, as libuci reads it.
inline std::string uci_quoted(std::string_view value) {
    std::string quoted = "'";
    for (const char c : value) {
        if (c == '\'') {
            quoted += "'\\''";
        } else {
            quoted += c;
        }
    }
    return quoted + "'";
}
