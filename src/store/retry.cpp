#include "store/retry.h"

#include <chrono>
#include <random>
#include <thread>

namespace corvida {
namespace store {

void BackOff(int attempt) {
    thread_local std::minstd_rand generator(std::random_device{}());
    const int bound_us = 1000 << (attempt < 6 ? attempt : 6);
    std::uniform_int_distribution<int> pick(bound_us / 4, bound_us);
    std::this_thread::sleep_for(std::chrono::microseconds(pick(generator)));
}

}  // namespace store
}  // namespace corvida
