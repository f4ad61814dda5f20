// Motion statistics planes: layout, alternation, following the scene, and
// the bounded wait of the blocking query.
#include <stdlib.h>

#include <thread>
#include <tuple>
#include <utility>

#include "driver_fixture.h"

namespace {

class VirtualCameraMotionTest : public VirtualCameraTest {
 protected:
  void MapStatistics() {
    iav_querybuf_t query{};  // buffer 0
    ASSERT_EQ(Request(IAV_IOC_QUERY_BUF, &query), 0);
    length_ = query.length;
    void* mapped = vdev_mmap(nullptr, length_ * 2, PROT_READ, MAP_SHARED, iav_, query.offset);
    ASSERT_NE(mapped, MAP_FAILED);
    stats_ = static_cast<const uint8_t*>(mapped);
  }
  void TearDown() override {
    if (stats_ != nullptr) vdev_munmap(const_cast<uint8_t*>(stats_), length_ * 2);
    VirtualCameraTest::TearDown();
  }

  iav_me0desc_t NextPlane(int fd) {
    iav_querydesc_t query{};
    query.qid = IAV_DESC_ME0;
    EXPECT_EQ(vdev_ioctl(fd, IAV_IOC_QUERY_DESC, &query), 0);
    return query.arg.me0;
  }

  // Cells that changed by 5 or more between two planes.
  size_t Changed(const iav_me0desc_t& a, const iav_me0desc_t& b) const {
    size_t count = 0;
    for (uint32_t y = 0; y < a.height; ++y)
      for (uint32_t x = 0; x < a.width; ++x)
        count += abs(stats_[a.dataOffset + y * a.pitch + x] - stats_[b.dataOffset + y * b.pitch + x]) >= 5;
    return count;
  }

  const uint8_t* stats_ = nullptr;
  size_t length_ = 0;
};

TEST_F(VirtualCameraMotionTest, PlanesAlternateFollowTheSceneAndBlockUntilTheNextFrame) {
  ASSERT_NO_FATAL_FAILURE(MapStatistics());
  ASSERT_NO_FATAL_FAILURE(SetUpIdleVin());
  ASSERT_EQ(Request(IAV_IOC_ENABLE_PREVIEW, 0ul), 0);
  vcam_set_scene(VCAM_SCENE_STILL);
  vcam_advance_ms(34);
  iav_me0desc_t first = NextPlane(iav_);
  EXPECT_EQ(std::make_tuple(first.width, first.height, first.pitch >= first.width), std::make_tuple(240u, 135u, true));
  const size_t cells = first.width * first.height;
  vcam_advance_ms(34);
  iav_me0desc_t still = NextPlane(iav_);
  EXPECT_EQ(std::make_tuple(still.seqNum, still.dataOffset != first.dataOffset, Changed(first, still)), std::make_tuple(first.seqNum + 1, true, (size_t)0));
  EXPECT_LE(still.dataOffset + still.height * still.pitch, length_ * 2);

  // A moving box changes some cells, a busy scene a quarter or more; the
  // planes alternate between two places.
  iav_me0desc_t previous = still;
  for (vcam_scene_t scene : {VCAM_SCENE_MOVING, VCAM_SCENE_BUSY}) {
    vcam_set_scene(scene);
    vcam_advance_ms(34);
    iav_me0desc_t a = NextPlane(iav_);
    vcam_advance_ms(34);
    iav_me0desc_t b = NextPlane(iav_);
    EXPECT_EQ(std::make_tuple(a.dataOffset, b.dataOffset), std::make_tuple(first.dataOffset, previous.dataOffset));
    previous = b;
    size_t changed = Changed(a, b);
    EXPECT_GE(changed, scene == VCAM_SCENE_BUSY ? cells / 4 : 1u);
    EXPECT_TRUE(scene == VCAM_SCENE_BUSY || changed < cells / 16) << changed;
  }

  // The blocking query (the motion thread's own descriptor) waits until time moves.
  vcam_set_manual_wait_limit_ms(0);
  int fd = vdev_open(VDEV_PATH_IAV, O_RDWR);
  ASSERT_GE(fd, 0);
  iav_me0desc_t current = NextPlane(fd);
  iav_me0desc_t next;
  std::thread waiter([&] { next = NextPlane(fd); });
  vcam_advance_ms(34);
  waiter.join();
  EXPECT_EQ(next.seqNum, current.seqNum + 1);
  // A reset wakes a waiter, which gets the latest plane again.
  std::thread woken([&] { next = NextPlane(fd); });
  vcam_reset();
  woken.join();
  vdev_close(fd);
}

}  // namespace
