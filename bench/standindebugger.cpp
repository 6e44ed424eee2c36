// Stands in for the debugger: ignores its arguments, writes as many MiB of backtrace as the environment
// variable BACKTRACE_MIB says, and succeeds.

#include <cstddef>
#include <cstdlib>
#include <string>
#include <string_view>

#include <unistd.h>

namespace {

constexpr std::size_t blockSize = std::size_t{1024} * 1024;

constexpr std::string_view currentThread
    = "[Current thread is 1 (Thread 0x7f2b9c5d8740 (LWP 31337))]\n";

constexpr std::string_view frame
    = "#7  0x00007f2b9d0c4e51 in MailFolder::openMessage (this=0x55d0c8a1b2c0, number=4711) at "
      "store/mailfolder.cpp:412\n"
      "        message = {subject = \"Re: minutes of the meeting\", size = 20480, flags = 3}\n"
      "        cache = std::vector of length 2, capacity 4 = {0x55d0c8a1f010, 0x55d0c8a1f0a0}\n"
      "        position = <optimized out>\n"
      "        __PRETTY_FUNCTION__ = \"bool MailFolder::openMessage(int)\"\n";

std::string backtraceBlock()
{
    std::string block(currentThread);
    while (block.size() < blockSize)
        block += frame;
    block.resize(blockSize);
    return block;
}

bool writeWhole(std::string_view text)
{
    while (!text.empty()) {
        const ssize_t count = write(STDOUT_FILENO, text.data(), text.size());
        if (count == -1)
            return false;
        text.remove_prefix(static_cast<std::size_t>(count));
    }
    return true;
}

} // namespace

int main()
{
    const char *const blocks = std::getenv("BACKTRACE_MIB");
    const int blockCount = blocks != nullptr ? std::atoi(blocks) : 0;
    const std::string block = blockCount > 0 ? backtraceBlock() : std::string();
    for (int i = 0; i < blockCount; ++i) {
        if (!writeWhole(block))
            return EXIT_FAILURE;
    }
    return EXIT_SUCCESS;
}
