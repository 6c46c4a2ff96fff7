#include "core/tarn_main.h"

int main(int argc, char **argv) {
    return tarn_main(argc, argv);
}
