// What the display program reads from files it does not own: logos of every
// kind, hostile ones bounded in time, and a display manager's authority file.
#include "DesktopUser.h"
#include "DisplayAuthority.h"
#include "HostTesting.h"
#include "LogoLoader.h"

#include <X11/Xauth.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zlib.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <string>

namespace notifymsg {
namespace {

class TempDir : public testing::Test {
protected:
    std::string Write(const std::string& name, const std::string& bytes) {
        hosttest::WriteFile(m_dir + "/" + name, bytes);
        return m_dir + "/" + name;
    }
    hosttest::TempDir m_scratch;
    const std::string m_dir = m_scratch.Path();
};

// A well-formed PNG of any declared size whose pixel data is a few empty rows.
std::string Png(uint32_t width, uint32_t height) {
    GdkPixbuf* pixbuf = gdk_pixbuf_new(GDK_COLORSPACE_RGB, FALSE, 8, 3, 2);
    gdk_pixbuf_fill(pixbuf, 0xff000000);
    gchar* data = nullptr;
    gsize size = 0;
    gdk_pixbuf_save_to_buffer(pixbuf, &data, &size, "png", nullptr, nullptr);
    std::string png(data, size);
    g_free(data);
    g_object_unref(pixbuf);
    // The header's width and height (the decoder must not trust them), and its
    // checksum, so that only the size can be what gets the file refused.
    for (int i = 0; i < 4; ++i) {
        png[16 + i] = char(width >> (24 - 8 * i));
        png[20 + i] = char(height >> (24 - 8 * i));
    }
    const uLong crc = crc32(0, reinterpret_cast<const Bytef*>(&png[12]), 17);
    for (int i = 0; i < 4; ++i) {
        png[29 + i] = char(crc >> (24 - 8 * i));
    }
    return png;
}

TEST_F(TempDir, LogosOfEachFormatFitTheBoxWithTheirAspect) {
    const std::string svg = "<svg xmlns='http://www.w3.org/2000/svg' width='400' height='100'>"
                            "<rect width='400' height='100' fill='red'/></svg>";
    const std::string ppm = "P6 4 2 255\n" + std::string(24, '\x40');
    const std::string pgm = "P5 2 4 255\n" + std::string(8, '\x40');
    const struct {
        std::string name, bytes;
        int width, height;
    } cases[] = {{"logo.png", Png(3, 2), 3, 2},
                 {"logo.svg", svg, 128, 32},
                 {"logo.ppm", ppm, 4, 2},
                 {"logo.pgm", pgm, 2, 4}};
    for (const auto& c : cases) {
        std::string error;
        GdkPixbuf* logo = LoadLogo(Write(c.name, c.bytes), 128, error);
        ASSERT_NE(logo, nullptr) << c.name << ": " << error;
        EXPECT_EQ(gdk_pixbuf_get_width(logo), c.width) << c.name;
        EXPECT_EQ(gdk_pixbuf_get_height(logo), c.height) << c.name;
        GdkPixbuf* small = FitLogo(logo, 1);
        EXPECT_EQ(gdk_pixbuf_get_width(small) + gdk_pixbuf_get_height(small), 2) << c.name;
        g_object_unref(small);
        g_object_unref(logo);
    }
}

TEST_F(TempDir, HostileLogosGiveNoLogoQuickly) {
    const std::string fifo = m_dir + "/fifo";
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    const std::string good = Png(3, 2);
    const std::string cases[] = {
        m_dir + "/missing.png",
        fifo,
        "/dev/zero",
        m_dir,
        Write("truncated.png", good.substr(0, good.size() / 2)),
        Write("huge.png", Png(20000, 20000)),
        Write("wide.png", Png(100000, 1)),
        Write("many.png", Png(10000, 10000)), // each side allowed, not their product
        Write("huge.ppm", "P6 20000 20000 255\n" + std::string(4096, '\0')),
        Write("text.png", "this is not an image"),
        Write("empty.png", ""),
    };
    for (const std::string& path : cases) {
        const auto start = std::chrono::steady_clock::now();
        std::string error;
        EXPECT_EQ(LoadLogo(path, 256, error), nullptr) << path;
        EXPECT_FALSE(error.empty()) << path;
        EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(2)) << path;
    }
}

// An entry as xauth would write it.
void AddEntry(FILE* file, uint16_t family, std::string address, std::string number,
              std::string data) {
    std::string name = "MIT-MAGIC-COOKIE-1";
    Xauth entry{};
    entry.family = family;
    entry.address = &address[0];
    entry.address_length = (unsigned short)address.size();
    entry.number = &number[0];
    entry.number_length = (unsigned short)number.size();
    entry.name = &name[0];
    entry.name_length = (unsigned short)name.size();
    entry.data = &data[0];
    entry.data_length = (unsigned short)data.size();
    ASSERT_EQ(XauWriteAuth(file, &entry), 1);
}

TEST_F(TempDir, OnlyTheDisplaysCookieIsHandedToTheUser) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "handing a file to another user needs root";
    }
    const std::string source = m_dir + "/root-0";
    FILE* file = fopen(source.c_str(), "wb");
    AddEntry(file, 256, "dm-host", "1", "cookie-of-display-1");
    AddEntry(file, 256, "dm-host", "0", "cookie-of-display-0");
    AddEntry(file, 256, "dm-host", "10", "cookie-of-display-10");
    fclose(file);

    std::vector<AuthorityEntry> entries;
    std::string error;
    ASSERT_TRUE(ReadDisplayCookies(source, DisplayNumber(":0.0"), entries, error)) << error;
    ASSERT_EQ(entries.size(), 1u);
    EXPECT_EQ(entries[0].data, "cookie-of-display-0");
    EXPECT_FALSE(ReadDisplayCookies(source, 7, entries, error));

    // Written for any host, 0600, owned by the user.
    const std::string runtime = m_dir + "/run";
    ASSERT_EQ(mkdir(runtime.c_str(), 0700), 0);
    ASSERT_EQ(chown(runtime.c_str(), 65534, 65534), 0);
    std::string handed;
    ReadDisplayCookies(source, 0, entries, error);
    ASSERT_TRUE(WriteUserAuthority(entries, runtime, 65534, 65534, handed, error)) << error;
    struct stat info;
    ASSERT_EQ(stat(handed.c_str(), &info), 0);
    EXPECT_EQ(info.st_uid, 65534u);
    EXPECT_EQ(info.st_mode & 0777, 0600u);
    file = fopen(handed.c_str(), "rb");
    Xauth* copy = XauReadAuth(file);
    ASSERT_NE(copy, nullptr);
    EXPECT_EQ(copy->family, kFamilyWild);
    EXPECT_EQ(std::string(copy->data, copy->data_length), "cookie-of-display-0");
    XauDisposeAuth(copy);
    EXPECT_EQ(XauReadAuth(file), nullptr);
    fclose(file);

    // Never through a planted link, never into another user's directory, never
    // from a file that root does not own.
    unlink(handed.c_str());
    ASSERT_EQ(symlink("/etc/passwd", handed.c_str()), 0);
    EXPECT_TRUE(WriteUserAuthority(entries, runtime, 65534, 65534, handed, error));
    EXPECT_EQ(lstat(handed.c_str(), &info), 0);
    EXPECT_TRUE(S_ISREG(info.st_mode)) << "the link was replaced, not followed";
    EXPECT_FALSE(WriteUserAuthority(entries, m_dir, 65534, 65534, handed, error));
    ASSERT_EQ(chown(source.c_str(), 65534, 65534), 0);
    EXPECT_FALSE(ReadDisplayCookies(source, 0, entries, error));
}

TEST(DisplayNumber, NamesOnlyWholeDisplays) {
    const std::pair<const char*, int> cases[] = {
        {":0", 0}, {":0.0", 0}, {"unix:1", 1}, {"host:10.0", 10}, {"", -1},
        {":", -1}, {":x", -1},  {":0x", -1},   {"0", -1},         {":99999999", -1}};
    for (const auto& [display, number] : cases) {
        EXPECT_EQ(DisplayNumber(display), number) << display;
    }
}

TEST_F(TempDir, TheDisplaysUserComesFromTheLoginRecords) {
    const std::string records = Write("utmp", hosttest::LoginRecords({
                                                  {"root", "tty1"},
                                                  {"daemon", ":0", "", ":0", DEAD_PROCESS},
                                                  {"nobody", "tty7", "", ":0"},
                                                  {"bin", ":1", "", ":1"},
                                              }));

    DesktopUser user;
    std::string error;
    ASSERT_TRUE(UserOfDisplay(":0.0", records.c_str(), user, error)) << error;
    EXPECT_EQ(user.name, "nobody");
    EXPECT_FALSE(UserOfDisplay(":2", records.c_str(), user, error));
}

} // namespace
} // namespace notifymsg
