// Text made safe and laid out, window slots, and the logo loader.
#include "LogoImage.h"
#include "TextLayout.h"
#include "WindowLayout.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>

namespace notifymsg {
namespace {

// Ten pixels a character: widths are easy to reason about.
int TenEach(const std::u32string& text) {
    return int(text.size()) * 10;
}

TEST(Utf8, InvalidBytesBecomeReplacementCharacters) {
    const struct {
        std::string bytes;
        std::u32string text;
    } cases[] = {
        {"plain", U"plain"},
        {"\xc3\xa9\xe2\x82\xac\xf0\x9f\x98\x80", U"\u00e9\u20ac\U0001F600"},
        {"\xc0\xaf", U"\uFFFD\uFFFD"},                     // overlong "/"
        {"\xed\xa0\x80", U"\uFFFD\uFFFD\uFFFD"},           // surrogate
        {"\xf4\x90\x80\x80", U"\uFFFD\uFFFD\uFFFD\uFFFD"}, // above U+10FFFF
        {"a\xe2\x82", U"a\uFFFD\uFFFD"},                   // cut short
        {"\x80x\xff", U"\uFFFDx\uFFFD"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(DecodeUtf8(c.bytes), c.text) << c.bytes;
    }
    EXPECT_EQ(EncodeUtf8(U"\u00e9\u20ac\U0001F600"), "\xc3\xa9\xe2\x82\xac\xf0\x9f\x98\x80");
}

TEST(Printable, ControlsGoAndLineBreaksAreKeptOrFlattened) {
    const std::u32string text = U"a\tb\r\nc\rd\ne\x01\x1b[1m\x7f\x85"
                                U"f  \n ";
    EXPECT_EQ(Printable(text, true), U"a b\nc\nd\ne[1mf");
    EXPECT_EQ(Printable(text, false), U"a b c d e[1mf");
}

TEST(WrapText, BreaksAtBlanksAndLineBreaksAndCutsLongWords) {
    const struct {
        std::u32string text;
        int width;
        size_t maxLines;
        std::vector<std::u32string> lines;
    } cases[] = {
        {U"one two three", 80, 5, {U"one two", U"three"}},
        {U"one   two", 40, 5, {U"one", U"two"}},
        {U"line\n  indented", 200, 5, {U"line", U"  indented"}},
        {U"abcdefghij", 40, 5, {U"abcd", U"efgh", U"ij"}},
        {U"one two three four", 70, 1, {U"one tw\u2026"}},
        {U"a\n\nb", 100, 5, {U"a", U"", U"b"}},
        {U"wide", 5, 2, {U"w", U"\u2026"}},
        {U"", 100, 5, {}},
        {U"anything", 100, 0, {}},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(WrapText(c.text, c.width, c.maxLines, TenEach), c.lines) << EncodeUtf8(c.text);
    }
}

TEST(WrapText, StaysBoundedOnHugeInput) {
    int calls = 0;
    const MeasureText counting = [&](const std::u32string& s) {
        ++calls;
        return TenEach(s);
    };
    const std::vector<std::u32string> lines =
        WrapText(std::u32string(60000, U'x'), 400, 4, counting);
    ASSERT_EQ(lines.size(), 4u);
    EXPECT_EQ(lines.back().back(), kEllipsis);
    EXPECT_LT(calls, 100);

    // Characters of no width never overflow; lines are still bounded.
    const std::vector<std::u32string> invisible =
        WrapText(std::u32string(60000, U'\u200b'), 400, 3, [](const std::u32string&) { return 0; });
    ASSERT_EQ(invisible.size(), 3u);
    EXPECT_EQ(invisible[0].size(), kMaxLineCharacters);
    EXPECT_EQ(FitLine(std::u32string(60000, U'x'), 50, TenEach), U"xxxx\u2026");
    EXPECT_EQ(FitLine(U"fits", 50, TenEach), U"fits");
}

TEST(WindowSlots, TenSlotsTileACommonScreenWithoutOverlap) {
    for (const auto& [w, h] : {std::pair{1280, 1024}, std::pair{1920, 1080}}) {
        std::vector<Rect> slots;
        for (int order = 0; order < 10; ++order) {
            const Rect r = NormalWindowRect(w, h, order);
            EXPECT_GE(r.x, 0);
            EXPECT_GE(r.y, 0);
            EXPECT_LE(r.x + r.width, w);
            EXPECT_LE(r.y + r.height, h);
            for (const Rect& other : slots) {
                EXPECT_FALSE(r.x < other.x + other.width && other.x < r.x + r.width &&
                             r.y < other.y + other.height && other.y < r.y + r.height)
                    << w << "x" << h << " slot " << order;
            }
            slots.push_back(r);
        }
        EXPECT_EQ(slots[0].x + slots[0].width, w - kScreenMargin) << "slot 0 at the top right";
        EXPECT_EQ(slots[0].y, kScreenMargin);
    }
}

TEST(WindowSlots, SmallScreensCascadeAndStayOnScreen) {
    const Rect first = NormalWindowRect(800, 600, 0);
    const Rect wrapped = NormalWindowRect(800, 600, 9);
    EXPECT_NE(wrapped.x, first.x);
    EXPECT_GE(wrapped.x, 0);
    EXPECT_LE(wrapped.y + wrapped.height, 600);
    const Rect tiny = NormalWindowRect(100, 50, 9);
    EXPECT_GE(tiny.x, 0);
    EXPECT_GE(tiny.y, 0);
    EXPECT_GE(tiny.width, 1);
    EXPECT_LE(tiny.width, 100);
}

TEST(ContentLayout, LogoPushesTheTextAndTheButtonSitsBelow) {
    const ContentLayout plain = LayoutContent(420, 180, false, 16, 0, 0);
    const ContentLayout logo = LayoutContent(420, 180, false, 16, 64, 32);
    EXPECT_EQ(plain.logo.width, 0);
    EXPECT_EQ(logo.text.x, plain.text.x + 64 + 10);
    EXPECT_EQ(logo.text.x + logo.text.width, plain.text.x + plain.text.width);
    EXPECT_LE(plain.text.y + plain.text.height, plain.button.y);
    EXPECT_EQ(plain.button.x + plain.button.width / 2, 210);
    const ContentLayout crushed = LayoutContent(30, 20, true, 40, 64, 64);
    EXPECT_GE(crushed.text.width, 0);
    EXPECT_GE(crushed.text.height, 0);
    EXPECT_GE(crushed.button.y, 0);
}

std::string Ppm(const std::string& header, size_t samples, char value = '\x80') {
    return header + std::string(samples, value);
}

TEST(Netpbm, ReadsBinaryPpmAndPgm) {
    RgbImage image;
    std::string error;
    ASSERT_TRUE(ParseNetpbm("P6\n# comment\n2 1\n255\n\x01\x02\x03\x04\x05\x06", image, error));
    EXPECT_EQ(image.width, 2);
    EXPECT_EQ(image.rgb, (std::vector<uint8_t>{1, 2, 3, 4, 5, 6}));
    ASSERT_TRUE(ParseNetpbm(std::string("P5 1 2 15\n\x0f\x00", 13), image, error));
    EXPECT_EQ(image.rgb, (std::vector<uint8_t>{255, 255, 255, 0, 0, 0}));
    ASSERT_TRUE(ParseNetpbm(std::string("P5 1 1 65535 \xff\xff", 15), image, error));
    EXPECT_EQ(image.rgb, (std::vector<uint8_t>{255, 255, 255}));
}

TEST(Netpbm, RefusesWhatItCannotRead) {
    const std::string bad[] = {"",
                               "P3 1 1 255 1 2 3",
                               "\x89PNG\r\n",
                               Ppm("P6 2 2 255\n", 11),
                               Ppm("P6 0 1 255\n", 3),
                               Ppm("P6 5000 1 255\n", 15000),
                               Ppm("P6 1 1 0\n", 3),
                               Ppm("P6 1 1 65536\n", 6),
                               "P6 1 1 255",
                               Ppm("P6 1 1 255x", 3),
                               Ppm("P6 1 999999 255\n", 3)};
    for (const std::string& data : bad) {
        RgbImage image;
        std::string error;
        EXPECT_FALSE(ParseNetpbm(data, image, error)) << data.substr(0, 16);
        EXPECT_FALSE(error.empty());
    }
}

TEST(Netpbm, LoadsRegularFilesOnlyAndScalesDown) {
    const std::string dir = testing::TempDir() + "nd-logo-test";
    mkdir(dir.c_str(), 0755);
    const std::string file = dir + "/logo.ppm";
    std::ofstream(file, std::ios::binary) << Ppm("P6 300 150 255\n", 300 * 150 * 3);
    RgbImage image;
    std::string error;
    ASSERT_TRUE(LoadLogo(file, image, error)) << error;
    const RgbImage scaled = ScaleToFit(image, 64, 64);
    EXPECT_EQ(scaled.width, 64);
    EXPECT_EQ(scaled.height, 32);
    EXPECT_EQ(scaled.rgb.size(), 64u * 32u * 3u);
    EXPECT_EQ(ScaleToFit(scaled, 64, 64).width, 64) << "never enlarged";

    const std::string fifo = dir + "/fifo";
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    EXPECT_FALSE(LoadLogo(fifo, image, error)) << "must not block on a FIFO";
    EXPECT_FALSE(LoadLogo(dir, image, error));
    EXPECT_FALSE(LoadLogo(dir + "/absent.ppm", image, error));
    unlink(fifo.c_str());
    unlink(file.c_str());
    rmdir(dir.c_str());
}

} // namespace
} // namespace notifymsg
