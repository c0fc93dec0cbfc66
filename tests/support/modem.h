// The simulated modem as a test runs it, and the log of what a call did.
#pragma once

#include "support/case.h"
#include "support/program.h"

#include <qzlib.h>

#include <cstdio>
#include <unistd.h>

namespace support
{

// A modem on /tmp/tty.
class Modem
{
public:
    explicit Modem(const std::vector<std::string> &arguments = {}) : program_(words(arguments))
    {
        EXPECT_TRUE(eventually([] { return access(TTY, F_OK) == 0 && access(CONTROL, F_OK) == 0; }));
    }

    // Gives an instruction and waits until it was taken.
    void control(const std::string &line)
    {
        FILE *pipe = fopen(CONTROL, "we");
        fprintf(pipe, "%s\n", line.c_str());
        fclose(pipe);
        EXPECT_TRUE(eventually([&] { return transcript().find("-- " + line + "\n") != std::string::npos; }));
    }
    [[nodiscard]] static std::string transcript() { return read_file("/tmp/transcript"); }

    static constexpr const char *TTY = "/tmp/tty";

private:
    static constexpr const char *CONTROL = "/tmp/control";

    static std::vector<std::string> words(const std::vector<std::string> &arguments)
    {
        std::vector<std::string> words = {"modemsim",     "--link",          TTY,      "--control", CONTROL,
                                          "--transcript", "/tmp/transcript", "--echo", "off"};
        words.insert(words.end(), arguments.begin(), arguments.end());
        words.emplace_back(SOURCE_DIR "/examples/modem.at");
        return words;
    }

    Program program_;
};

// File mode, debug level. What was logged since the last look, as "<LEVEL>text" lines.
inline void start_log()
{
    write_file("/tmp/config/cli.conf", "log msg-level debug\n");
    openmsg_com("/tmp/test.log", 0, "", 0);
}

inline std::string take_log()
{
    constexpr size_t TIMESTAMP_LENGTH = sizeof "[2026-01-31 23:59:59]" - 1;
    std::string log = read_file("/tmp/test.log");
    unlink("/tmp/test.log");
    for (size_t line = 0; line < log.size(); line = log.find('\n', line) + 1) {
        if (log[line] != '[' || log.compare(line + TIMESTAMP_LENGTH - 1, 2, "]<") != 0)
            continue; // of a text with line feeds
        log.erase(line, TIMESTAMP_LENGTH);
        log.erase(log.find(">:", line) + 1, 1); // the empty name
    }
    return log;
}

} // namespace support
