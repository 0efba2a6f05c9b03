#pragma once

#include <gmock/gmock.h>
#include <ostream>
#include <string>
#include <vector>

// What the code under test prints, as the lines of its log.
//
//     log_capture log;
//     EXPECT_EQ(cloud_session_connect(nullptr), 100);
//     EXPECT_THAT(log.lines(), ElementsAre(error_line("cloud_session_connect",
//                                                     "Ensure NULL != cloudCycle failed.")));

enum class line_kind { error, info, plain };

struct log_line {
    line_kind kind = line_kind::plain;
    std::string thread; // empty for a plain line, as the next two
    std::string function;
    int number = 0;
    std::string message; // of a plain line, the line itself without its "\n"

    bool operator==(const log_line&) const = default;
};

std::ostream& operator<<(std::ostream& out, line_kind kind);
std::ostream& operator<<(std::ostream& out, const log_line& line);

// Cuts printed text into lines. A log line ends with the colour reset, a plain line with "\n";
// a line without its end is plain.
std::vector<log_line> parse_log(const std::string& text);

// Diverts the process's standard output and standard error into files from its creation to its
// end; all threads'. When the test has failed by then, what was diverted is printed after all.
class log_capture {
public:
    log_capture();
    ~log_capture();
    log_capture(const log_capture&) = delete;
    log_capture& operator=(const log_capture&) = delete;

    std::string text() const;   // standard output so far
    std::string errors() const; // standard error so far
    std::vector<log_line> lines() const;
    // The messages of one function, in order; of all functions without a name.
    std::vector<std::string> messages(const std::string& function = "") const;
    bool has(const testing::Matcher<log_line>& line) const;
    size_t count(const testing::Matcher<log_line>& line) const;
    // Waits for such a line, or for the last of several; false when patience ends.
    bool gets(const testing::Matcher<log_line>& line, size_t times = 1) const;
    void clear(); // forgets what came so far

private:
    struct diversion {
        int descriptor;
        int original;
        int file;
    };

    static diversion divert(int descriptor);
    static std::string content(const diversion& diverted);
    static void restore(const diversion& diverted);

    diversion output;
    diversion error;
};

// Match a log line by level, function and message.
testing::Matcher<log_line> error_line(const testing::Matcher<std::string>& function,
                                      const testing::Matcher<std::string>& message);
testing::Matcher<log_line> info_line(const testing::Matcher<std::string>& function,
                                     const testing::Matcher<std::string>& message);
testing::Matcher<log_line> plain_line(const testing::Matcher<std::string>& text);
