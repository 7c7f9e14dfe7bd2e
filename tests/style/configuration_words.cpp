// Prints the keywords that the loader acts on, one a line: the manual is held to them (manual.py).

#include <iostream>

#include "config/keywords.h"

int main() {
    for (const Keyword& keyword : all_keywords()) {
        std::cout << keyword.name << '\n';
    }
}
