#include "core/start_up.h"

int main(int argc, char* argv[]) {
    run_process(argc, argv);
}
