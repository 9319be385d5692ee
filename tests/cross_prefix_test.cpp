// GLib and ICU as they were built for Windows: the calls that text comparison is made of.
#include <glib.h>
#include <gtest/gtest.h>
#include <unicode/uchar.h>

#include <string>

namespace {

TEST(CrossPrefix, GlibDecodesUtf8) {
  const std::string text = "a\u00e4\u20ac\U0001f600";
  const gunichar expected[] = {'a', 0xe4, 0x20ac, 0x1f600};
  const char* at = text.c_str();
  for (const gunichar wanted : expected) {
    EXPECT_EQ(g_utf8_get_char(at), wanted);
    at += g_utf8_skip[static_cast<unsigned char>(*at)];
  }
  EXPECT_EQ(at, text.c_str() + text.size());
}

TEST(CrossPrefix, GlibRefusesWhatIsNoCharacter) {
  EXPECT_TRUE(g_unichar_validate(0x10ffff));
  EXPECT_FALSE(g_unichar_validate(0xd800));
  EXPECT_FALSE(g_unichar_validate(0x110000));
}

TEST(CrossPrefix, IcuFoldsCase) {
  EXPECT_EQ(u_tolower('A'), 'a');
  EXPECT_EQ(u_tolower(0xc4), 0xe4);        // Latin capital A with diaeresis
  EXPECT_EQ(u_tolower(0x130), 'i');        // capital I with dot above, a simple mapping
  EXPECT_EQ(u_tolower(0x10400), 0x10428);  // Deseret, beyond 16 bits
  EXPECT_EQ(u_tolower(0x4e2d), 0x4e2d);    // no case
}

}  // namespace
