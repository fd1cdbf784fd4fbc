#include "cuda_like/launch/kernel_args.hpp"

#include <gtest/gtest.h>

#include <stdexcept>

#include "codegen/backend.hpp"
#include "cuda_like/launch/launch_record.hpp"

namespace {

using ondrel::KernelArgs;
using ondrel::codegen::KernelParam;

const ondrel::codegen::KernelParams kParams = {KernelParam::input("iot", "x"), KernelParam::output("iot", "out"),
                                               KernelParam::value("float", "scale"),
                                               KernelParam::value("int", "nrows")};

// Whatever order the host names the arguments in, the array follows the
// kernel's head.
TEST(KernelArgs, ArrayFollowsTheHead) {
  int a = 0, b = 0;
  KernelArgs args(kParams);
  args.set("nrows", int32_t{7}).set("scale", 0.5f).set("out", &b).set("x", &a);
  void** p = args.pointers();
  EXPECT_EQ(*static_cast<const void**>(p[0]), &a);
  EXPECT_EQ(*static_cast<const void**>(p[1]), &b);
  EXPECT_EQ(*static_cast<float*>(p[2]), 0.5f);
  EXPECT_EQ(*static_cast<int32_t*>(p[3]), 7);
}

TEST(KernelArgs, RefusesWhatTheHeadDoesNotDeclare) {
  int a = 0;
  KernelArgs args(kParams);
  EXPECT_THROW(args.set("tw", &a), std::logic_error);      // no such parameter
  EXPECT_THROW(args.set("scale", 0.5), std::logic_error);  // a double for a float
  EXPECT_THROW(args.set("x", int32_t{1}), std::logic_error);
  EXPECT_THROW(args.set("nrows", &a), std::logic_error);
  args.set("x", &a).set("out", &a).set("scale", 1.0f);
  try {
    args.pointers();
    FAIL() << "a missing argument went unnoticed";
  } catch (const std::logic_error& e) {
    EXPECT_STREQ(e.what(), "KernelArgs: no value for nrows");
  }
}

// 64-bit indices travel in eight bytes, and only to parameters declared I64.
TEST(KernelArgs, WideIndicesTakeEightBytes) {
  const ondrel::codegen::KernelParams params = {KernelParam::value("I64", "length"), KernelParam::value("int", "hop")};
  KernelArgs args(params);
  EXPECT_THROW(args.set("length", int32_t{5}), std::logic_error);
  EXPECT_THROW(args.set("hop", int64_t{5}), std::logic_error);
  args.set("length", int64_t{1} << 40).set("hop", int32_t{3});
  void** p = args.pointers();
  EXPECT_EQ(*static_cast<int64_t*>(p[0]), int64_t{1} << 40);
  EXPECT_EQ(*static_cast<int32_t*>(p[1]), 3);
}

// A plan whose text declares other parameters than the plan passes never
// reaches the compiler, let alone a launch.
TEST(KernelPlan, TextMustDeclareTheLaunchParameters) {
  ondrel::KernelPlan plan;
  plan.key = "test_head_mismatch";
  plan.entry = "ondrel_probe";
  plan.params = {KernelParam::input("iot", "x"), KernelParam::output("iot", "out")};
  plan.text = [] {
    ondrel::codegen::KernelSig sig("ondrel_probe", ondrel::codegen::hip_backend(),
                                   {KernelParam::output("iot", "out"), KernelParam::input("iot", "x")});
    return sig.head() + "}\n";
  };
  EXPECT_THROW(ondrel::compiled(plan, 0), std::logic_error);
}

}  // namespace
