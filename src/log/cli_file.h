// SPDX-License-Identifier: MIT
// The router's CLI configuration file, which the log level and the CLI reader are taken from.
#pragma once

namespace qz::log
{

constexpr const char *CLI_CONFIG_PATH = "/tmp/config/cli.conf";

} // namespace qz::log
