// The simulated modem as a test runs it.
#pragma once

#include "support/case.h"
#include "support/process.h"

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

    Process program_;
};

} // namespace support
