// contract_platform.h - what the contract test asks of the platform that it is linked with.
// Each platform has one source that defines these (scripted_contract_hook.cpp and its like); the
// test itself, contract_test.cpp, includes nothing of the platform but platform/include.
#ifndef TESTS_PLATFORM_CONTRACT_PLATFORM_H
#define TESTS_PLATFORM_CONTRACT_PLATFORM_H

#include <string>

namespace contract {

// The bytes of a valid offline model: one input, at least one FP32 or INT16 output. Variant 0, the first
// in each test, brings the platform to its first state; channels opened after variant 1 was made, from
// its bytes, take frames of the same size and give other outputs of the same size.
std::string make_model(int variant);

}  // namespace contract

#endif  // TESTS_PLATFORM_CONTRACT_PLATFORM_H
