#include <baseop/BaseOp.hpp>
#include <model/Model.hpp>

#include <cstdio>

int main() {
    std::puts("linked");
    return 0;
}
