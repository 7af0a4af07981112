// contract_platform.h - what the contract test asks of the platform that it is linked with.
// Each platform has one source that defines these (scripted_contract_hook.cpp and its like); the
// test itself, contract_test.cpp, knows nothing else of the platform but platform/include.
#ifndef TESTS_PLATFORM_CONTRACT_PLATFORM_H
#define TESTS_PLATFORM_CONTRACT_PLATFORM_H

#include <string>

namespace contract {

// Before each test: brings the platform to its first state and makes the model file.
void set_up();
// After each test; the test has closed its channels and the device.
void tear_down();

// Path of a valid model file: one input, at least one FP32 or INT16 output. May start with a
// key/value text; the offline model runs from the first "QTNX" to the end of the file.
std::string model_path();
// Path to give to QV_IPU_CreateDevice.
std::string firmware_path();

}  // namespace contract

#endif  // TESTS_PLATFORM_CONTRACT_PLATFORM_H
