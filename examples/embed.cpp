// Shows a program's own ends of the framework: loggers configured from a file, an adapter that
// takes over their lines, and a channel that gets the server's messages.
//
//     embed [CONFIG.json]     examples/embed.json unless another file is named
//
// Registers five PMU events where the ADSP has room for four. Exit status 0 when the refusal
// reached the adapter as a log line and the channel as a message.
#include <atomic>
#include <cstdio>
#include <string>

#include <tavrik/adsppm/ADSPPM.h>
#include <tavrik/log/LogAdapterStore.h>
#include <tavrik/log/Logger.h>
#include <tavrik/log/Time.h>
#include <tavrik/server/ChannelStore.h>
#include <tavrik/server/MarkerBuffer.h>

using tavrik::ADSPPM;
using tavrik::JSOM;

namespace {

std::atomic<int> linesLogged{0};
std::atomic<int> messagesPublished{0};

// Puts a tag, from the configuration, in front of every line. Has no state but that, so that any
// number of threads may log.
class TaggedAdapter : public tavrik::LogAdapter {
  public:
    explicit TaggedAdapter(const std::string& tagText) : tag(tagText) {}

    int log(const tavrik::LogLevel& level, const std::string& loggerName, const char* message,
            bool) override {
        ++linesLogged;
        return printf("%s: %s %s %s\n", tag.c_str(), loggerName.c_str(), level.getName().c_str(),
                      message);
    }
    int log(const tavrik::LogLevel& level, const std::string& loggerName,
            const std::string& message, bool buffering) override {
        return log(level, loggerName, message.c_str(), buffering);
    }
    int flush() override { return fflush(stdout); }

  private:
    const std::string tag;
};

class TaggedAdapterFactory : public tavrik::LogAdapterFactory {
  public:
    tavrik::LogAdapter* create(const JSOM& config) override {
        return new TaggedAdapter(config["tag"].stringValue("log"));
    }
};

// Prints what is published. Counts its own references, as every channel does.
class PrintingChannel : public tavrik::Channel {
  public:
    explicit PrintingChannel(const std::string& channelId) : id(channelId) {}

    void reserve() override { ++references; }
    bool release() override {
        if (--references != 0) return false;
        delete this;
        return true;
    }

    void removedFromList() override {}
    void setDescription(const JSOM& description) override {
        printf("channel %s: \"%s\" begins\n", id.c_str(),
               description["name"].stringValue().c_str());
    }
    void channelAdded(const std::string&) override {}
    void channelRemoved(const std::string&) override {}

    void publish(tavrik::Buffer& buffer) override {
        for (unsigned i = 0; i < buffer.getCount(); ++i) {
            const auto* const entry = dynamic_cast<const tavrik::MarkerEntry*>(&buffer.getEntry(i));
            if (entry == nullptr) continue;
            ++messagesPublished;
            std::string when;
            timeToString(entry->timestamp, when);
            printf("channel %s: %s UTC %s\n", id.c_str(), when.c_str(), entry->text.c_str());
        }
    }

  private:
    const std::string id;
    std::atomic<int> references{0};
};

class PrintingChannelFactory : public tavrik::ChannelFactory {
  public:
    tavrik::Channel* create(const std::string& id, const JSOM&) override {
        return new PrintingChannel(id);
    }
};

class IgnoringListener : public ADSPPM::Listener {
  public:
    void onADSPPMInput(int, double, long double) override {}
};

}  // namespace

int main(int argc, char** argv) {
    // Before anything logs or posts: the stores have no lock, and the first message looks for its
    // channel.
    tavrik::LogAdapterStore::addFactory("tagged", new TaggedAdapterFactory);
    tavrik::ChannelStore::addFactory("basic", new PrintingChannelFactory);
    tavrik::Logger::loadConfig(argc > 1 ? argv[1] : "examples/embed.json");

    constexpr int kSlots = 4;
    constexpr unsigned int kPeriod = 100;
    IgnoringListener listener;
    std::string refusal;
    for (int event = 1; event <= kSlots + 1; ++event) {
        ADSPPM::instance()->registerListener(&listener, event, "PMU_" + std::to_string(event),
                                             kPeriod, refusal);
    }
    // The listener is on this thread's stack: it must not be called once it is gone.
    for (int event = 1; event <= kSlots; ++event)
        ADSPPM::instance()->unregisterListener(&listener, event);
    printf("refused: %s\n", refusal.c_str());
    printf("lines to the adapter: %d, messages to the channel: %d\n", linesLogged.load(),
           messagesPublished.load());
    return linesLogged == 1 && messagesPublished == 1 ? 0 : 1;
}
