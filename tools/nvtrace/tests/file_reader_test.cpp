// Reading a trace file whole: a plain file's bytes, and a clear refusal, without
// waiting, of what is no plain file (a pipe, a socket, a folder, a device).
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "nvtracelib.h"
#include "temp_folder.h"

namespace {

struct ReadResult {
    bool ok = false;
    std::vector<std::uint8_t> data;
    std::string error;
};

ReadResult Read(const std::string& path)
{
    ReadResult r;
    r.data.assign(5, 0xEE); // what a refusal must leave alone
    r.ok = nvtrace::ReadWholeFile(path, r.data, r.error);
    return r;
}

} // namespace

// A buffer that held a larger file before is cut to the new file's size.
TEST(TraceFileReaderTest, ReadsAPlainFileWholeIntoAReusedBuffer)
{
    const TempFolder folder;
    std::vector<std::uint8_t> bytes(70000);
    for (std::size_t i = 0; i < bytes.size(); ++i)
        bytes[i] = static_cast<std::uint8_t>(i * 31 + 7);
    std::ofstream(folder.Path("a.trc3"), std::ios::binary)
        .write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    std::ofstream(folder.Path("b.trc3"), std::ios::binary) << "trace3";
    std::ofstream(folder.Path("empty.trc3"), std::ios::binary);
    std::vector<std::uint8_t> data;
    std::string error;
    ASSERT_TRUE(nvtrace::ReadWholeFile(folder.Path("a.trc3"), data, error)) << error;
    EXPECT_EQ(bytes, data);
    ASSERT_TRUE(nvtrace::ReadWholeFile(folder.Path("b.trc3"), data, error)) << error;
    EXPECT_EQ(std::vector<std::uint8_t>({'t', 'r', 'a', 'c', 'e', '3'}), data);
    ASSERT_TRUE(nvtrace::ReadWholeFile(folder.Path("empty.trc3"), data, error)) << error;
    EXPECT_TRUE(data.empty());
    EXPECT_EQ("", error);
}

// Some system files tell no size and still have bytes: they are read to their end.
TEST(TraceFileReaderTest, AFileThatTellsNoSizeIsReadToItsEnd)
{
    struct stat st {};
    ASSERT_EQ(0, ::stat("/proc/self/status", &st));
    ASSERT_EQ(0, st.st_size);
    const ReadResult r = Read("/proc/self/status");
    ASSERT_TRUE(r.ok) << r.error;
    const std::string text(r.data.begin(), r.data.end());
    EXPECT_EQ(0u, text.find("Name:\t")) << text;
    EXPECT_NE(std::string::npos, text.find("\nPid:\t" + std::to_string(::getpid()) + "\n"));
}

// A pipe with no writer would block a plain open; it is refused at once, as are a
// socket (which does not open at all), a folder and a device.
TEST(TraceFileReaderTest, PipesSocketsFoldersAndDevicesAreRefusedAsNoFile)
{
    const TempFolder folder;
    const std::string pipe = folder.Path("pipe.trc3"), socket = folder.Path("socket.trc3");
    ASSERT_EQ(0, ::mkfifo(pipe.c_str(), 0600));
    const int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
    ASSERT_NE(-1, fd);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    ASSERT_LT(socket.size(), sizeof(address.sun_path));
    std::memcpy(address.sun_path, socket.c_str(), socket.size() + 1);
    ASSERT_EQ(0, ::bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)));
    for (const std::string& path : {pipe, socket, folder.Path(""), std::string("/dev/null")}) {
        const ReadResult r = Read(path);
        EXPECT_FALSE(r.ok) << path;
        EXPECT_EQ("'" + path + "' is not a file", r.error);
        EXPECT_EQ(std::vector<std::uint8_t>(5, 0xEE), r.data) << path;
    }
    ::close(fd);
    const ReadResult missing = Read(folder.Path("missing.trc3"));
    EXPECT_FALSE(missing.ok);
    EXPECT_EQ("cannot open '" + folder.Path("missing.trc3") + "'", missing.error);
    EXPECT_EQ(std::vector<std::uint8_t>(5, 0xEE), missing.data);
}
