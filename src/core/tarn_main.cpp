#include "core/tarn_main.h"

int tarn_main(int, char **) { return 0; }
