#include "devbus/bus_client.h"

int main(int argc, char **argv) {
    return tarn_bus_main(argc, argv);
}
