// A test on the virtual camera: reset and on its manual clock, so that
// pictures appear only when the test advances time.
#pragma once

#include <gtest/gtest.h>

#include "vesk/virtualcam/virtualcam.h"

namespace vesk {
namespace test {

class CameraTest : public ::testing::Test {
 protected:
  void SetUp() override {
    vcam_reset();
    vcam_set_clock_mode(VCAM_CLOCK_MANUAL);
  }
  void TearDown() override { vcam_reset(); }

  static vcam_status_t Status() {
    vcam_status_t status;
    vcam_get_status(&status);
    return status;
  }
  static vcam_stream_status_t StreamStatus(uint32_t id) {
    vcam_stream_status_t status;
    vcam_get_stream_status(id, &status);
    return status;
  }
};

}  // namespace test
}  // namespace vesk
