// contract_platform.h - what the contract test asks of the platform that it is linked with.
// Each platform has one source that defines these (scripted_contract_hook.cpp and its like); the
// test itself, contract_test.cpp, knows nothing else of the platform but platform/include.
#ifndef TESTS_PLATFORM_CONTRACT_PLATFORM_H
#define TESTS_PLATFORM_CONTRACT_PLATFORM_H

#include <string>

namespace contract {

// Before each test: brings the platform to its first state. Gives the bytes of a valid offline model:
// one input, at least one FP32 or INT16 output.
std::string make_model();

}  // namespace contract

#endif  // TESTS_PLATFORM_CONTRACT_PLATFORM_H
