// SPDX-License-Identifier: MIT
#include <Pellox/PelloxMOR>

int main()
{
    PelloxMOR(); // so that the library is needed
    return 0;
}
