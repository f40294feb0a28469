// The entry of the unit tests.
#include <gmock/gmock.h>

#include "../namespaces.h"

int main(int argc, char** argv) {
    live_in_namespaces(argc, argv);
    testing::InitGoogleMock(&argc, argv);
    return RUN_ALL_TESTS();
}
