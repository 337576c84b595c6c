#include <cstdio>
int main() {
    std::fprintf(stderr, "orbel-sim: not built yet\n");
    return 2;
}
