#include <alsa/asoundlib.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>

#include "audio_util.h"

namespace {

struct Volume {
  snd_ctl_t* ctl = nullptr;
  snd_ctl_elem_id_t* id = nullptr;
  snd_ctl_elem_info_t* info = nullptr;
  snd_ctl_elem_value_t* value = nullptr;

  explicit Volume(const char* name = "VESK_CVOLUME") {
    snd_ctl_elem_id_malloc(&id);
    snd_ctl_elem_info_malloc(&info);
    snd_ctl_elem_value_malloc(&value);
    snd_ctl_elem_id_set_interface(id, SND_CTL_ELEM_IFACE_MIXER);
    snd_ctl_elem_id_set_name(id, name);
  }
  ~Volume() {
    if (ctl != nullptr) snd_ctl_close(ctl);
    snd_ctl_elem_value_free(value);
    snd_ctl_elem_info_free(info);
    snd_ctl_elem_id_free(id);
  }
  int Open() {
    vesk::test::UseVirtualSoundCard("");
    int err = snd_ctl_open(&ctl, "default", 0);
    if (err < 0) return err;
    snd_ctl_elem_info_set_id(info, id);
    return snd_ctl_elem_info(ctl, info);
  }
  int Write(long left, long right) {
    snd_ctl_elem_value_set_id(value, id);
    snd_ctl_elem_value_set_integer(value, 0, left);
    snd_ctl_elem_value_set_integer(value, 1, right);
    return snd_ctl_elem_write(ctl, value);
  }
  std::pair<long, long> Read() {
    snd_ctl_elem_value_set_id(value, id);
    EXPECT_EQ(snd_ctl_elem_read(ctl, value), 0);
    return {snd_ctl_elem_value_get_integer(value, 0), snd_ctl_elem_value_get_integer(value, 1)};
  }
};

TEST(VirtualMixer, ExposesAPersistentTwoChannelVolume) {
  const std::string state = "/tmp/vesk_vsnd_" + std::to_string(getpid()) + "_cvolume.state";
  unlink(state.c_str());
  setenv("VESK_VSND_CTL", ("min=10,max=73,initial=40,state=" + state).c_str(), 1);
  {
    Volume v;
    ASSERT_EQ(v.Open(), 0);
    EXPECT_EQ(snd_ctl_elem_info_get_type(v.info), SND_CTL_ELEM_TYPE_INTEGER);
    EXPECT_EQ(snd_ctl_elem_info_get_count(v.info), 2u);
    EXPECT_TRUE(snd_ctl_elem_info_is_writable(v.info));
    EXPECT_EQ(v.Read(), std::make_pair(40L, 40L));
    EXPECT_EQ(v.Write(25, 73), 0);
    EXPECT_EQ(vesk::test::ReadFile(state), "25 73\n");
    // Like a driver, values outside the range are refused and change nothing.
    EXPECT_LT(v.Write(9, 20), 0);
    EXPECT_LT(v.Write(20, 74), 0);
    EXPECT_EQ(vesk::test::ReadFile(state), "25 73\n");
  }
  {
    // A new handle (the product opens one per volume change) sees the values.
    Volume v;
    ASSERT_EQ(v.Open(), 0);
    EXPECT_EQ(v.Read(), std::make_pair(25L, 73L));
    EXPECT_EQ(v.Write(10, 11), 0);
  }
  // amixer reads the same element through the same configuration.
  std::string out = vesk::test::RunCommand("amixer -D default cget name=VESK_CVOLUME 2>&1");
  EXPECT_NE(out.find(": values=10,11"), std::string::npos) << out;
  EXPECT_NE(out.find("type=INTEGER,access=rw"), std::string::npos) << out;
  EXPECT_NE(out.find("min=10,max=73"), std::string::npos) << out;
  unlink(state.c_str());

  Volume unknown("Capture Volume");
  EXPECT_LT(unknown.Open(), 0);
  unsetenv("VESK_VSND_CTL");
}

}  // namespace
