// SPDX-License-Identifier: Apache-2.0
//
// Does one thing wrong, so that it can be seen whether the sanitizers find it.
#include <cstdlib>
#include <limits>
#include <string_view>

namespace {

// What the compiler does not see through, it does not warn of.
char* volatile memory = nullptr;
volatile int number = std::numeric_limits<int>::max();

int useAfterFree() {
    memory = new char[8]{};
    delete[] memory;
    return memory[0];
}

int leak() {
    for (int i = 0; i < 16; ++i) {  // something may still hold the last of them
        memory = new char[8]{};
    }
    memory = nullptr;
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    const std::string_view fault = argc > 1 ? argv[1] : "";
    int unused = 0;
    if (fault == "use-after-free") {
        unused = useAfterFree();
    } else if (fault == "leak") {
        unused = leak();
    } else if (fault == "null") {
        unused = *memory;
    } else if (fault == "overflow") {
        number = number + 1;
    } else if (fault != "nothing") {
        return EXIT_FAILURE;
    }
    return unused == 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}
