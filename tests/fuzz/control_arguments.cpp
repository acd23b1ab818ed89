// Any bytes as the arguments of a control call: they are read as what they are or not at all, and
// the daemon carries out whatever words and paths come of them without touching what is not named.
// The first byte says how the message is made, the rest are texts that end in a zero byte.
#include <sys/socket.h>
#include <systemd/sd-bus.h>

#include <array>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "core/KorvaneProDaemon.h"
#include "platform/linux/ControlArguments.h"
#include "platform/simulated/SimulatedMachine.h"

namespace {

using namespace korvane;
using Texts = std::vector<std::string>;

void require(bool holds) {
    if (!holds) std::abort();
}

struct UnrefMessage {
    void operator()(sd_bus_message* message) const { sd_bus_message_unref(message); }
};
using Message = std::unique_ptr<sd_bus_message, UnrefMessage>;

// A connection that nobody answers on, which is enough to make messages for.
sd_bus* someBus() {
    static sd_bus* const bus = [] {
        sd_bus* made = nullptr;
        std::array<int, 2> ends{};
        require(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()) == 0);
        require(sd_bus_new(&made) >= 0 && sd_bus_set_fd(made, ends[0], ends[0]) >= 0 &&
                sd_bus_start(made) >= 0);
        return made;
    }();
    return bus;
}

Texts textsIn(std::string_view bytes) {
    Texts texts;
    while (!bytes.empty()) {
        const std::string_view text = bytes.substr(0, bytes.find('\0'));
        texts.emplace_back(text);
        bytes.remove_prefix(text.size() == bytes.size() ? text.size() : text.size() + 1);
    }
    return texts;
}

// Null when the library does not take the texts, which must be UTF-8.
Message messageOf(const char* signature, const Texts& texts, std::string_view bytes) {
    sd_bus_message* raw = nullptr;
    require(sd_bus_message_new_method_call(someBus(), &raw, "a.b", "/", "a.b", "c") >= 0);
    Message message{raw};
    int result = 0;
    const std::string_view kind = signature;
    if (kind == "s") {
        const char* const text = texts.empty() ? "" : texts.front().c_str();
        result = sd_bus_message_append_basic(raw, 's', text);
    } else if (kind == "as") {
        result = sd_bus_message_open_container(raw, 'a', "s");
        for (const std::string& text : texts) {
            if (result >= 0) result = sd_bus_message_append_basic(raw, 's', text.c_str());
        }
        if (result >= 0) result = sd_bus_message_close_container(raw);
    } else if (kind == "ay") {
        result = sd_bus_message_append_array(raw, 'y', bytes.data(), bytes.size());
    } else if (kind == "v") {
        result = sd_bus_message_append(raw, "v", "as", 1, "/named");
    }
    if (result < 0 || sd_bus_message_seal(raw, 1, 0) < 0) return nullptr;
    require(sd_bus_message_rewind(raw, 1) >= 0);
    return message;
}

void carryOut(const std::string& word, const Texts& paths) {
    SimulatedMachine machine{MachineDescription{}};
    require(machine.fileSystem.put("/kept by nobody's name/file", "x"));
    KorvaneProDaemon daemon{machine.machine()};
    daemon.awakeFromNib();
    require(daemon.messageXmitRcvr(word));
    const auto lines = machine.systemLog.lines().size();
    daemon.messageDoCreateItems(paths);
    daemon.messageDoDeleteItems(paths);
    require(machine.systemLog.lines().size() <= lines + 2 * paths.size());
    bool mayBeNamed = false;
    for (const std::string& path : paths) {
        mayBeNamed = mayBeNamed || path.find("kept by nobody's name") != std::string::npos;
    }
    require(mayBeNamed || machine.fileSystem.bytes("/kept by nobody's name/file") == "x");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0) return 0;
    constexpr std::array<const char*, 5> kSignatures{"s", "as", "ay", "v", ""};
    const std::string_view bytes(reinterpret_cast<const char*>(data) + 1, size - 1);
    const Texts texts = textsIn(bytes);
    const std::string_view signature = kSignatures[data[0] % kSignatures.size()];

    std::string word;
    if (const Message message = messageOf(signature.data(), texts, bytes)) {
        const int result = readControlWord(message.get(), word);
        require((result == 0) == (signature == "s"));
        require(result != 0 || word == (texts.empty() ? "" : texts.front()));
        require(sd_bus_message_rewind(message.get(), 1) >= 0);
        Texts paths;
        const int read = readControlPaths(message.get(), paths);
        require((read == 0) == (signature == "as"));
        require(read != 0 || paths == texts);
    }
    carryOut(word, texts);
    return 0;
}
