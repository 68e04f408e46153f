// SPDX-License-Identifier: MIT
#include "completions.h"

std::string inARow(const std::vector<std::string> &words)
{
    std::string row;
    for (const std::string &word : words)
        row += (row.empty() ? "" : " ") + word;
    return row;
}
