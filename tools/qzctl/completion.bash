# SPDX-License-Identifier: MIT
# shellcheck shell=bash
# The words come from the program's own table of commands.
eval "$(qzctl --completion bash)"
