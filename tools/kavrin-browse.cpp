// Lists the OSC services on the network as they come and go, found with zeroconf through the
// Avahi daemon, and what the OSCQuery ones among them describe.

#include <csignal>
#include <cstdio>
#include <iostream>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "osc/discovery/OSCServiceBrowser.hpp"
#include "osc/dispatch/RunLoop.hpp"
#include "osc/query/OSCQueryClient.hpp"

using namespace kavrin;

namespace {

constexpr const char* usage =
    "usage: kavrin-browse [--tree] [--once --timeout S] [--type TYPE]...\n"
    "\n"
    "Lists OSC services (_osc._udp, _osc._tcp, _oscjson._tcp, or the TYPEs given) as they\n"
    "come and go, one line each, the fields separated by tabs:\n"
    "  +  NAME  TYPE  HOST  PORT  ADDRESSES   when one appears, or what it resolves to changes\n"
    "  -  NAME  TYPE                          when it goes\n"
    "HOST is the name the Avahi daemon resolved (studio.local); ADDRESSES are numeric,\n"
    "comma-separated.\n"
    "  --tree     also prints the methods of each OSCQuery service, one line each: the address,\n"
    "             a tab and the type tags\n"
    "  --once     prints what it finds within --timeout S seconds, then exits: 0 when it\n"
    "             found any, 1 when none, 2 on an error (no Avahi daemon, say)\n"
    "Otherwise runs until interrupted (SIGINT or SIGTERM).\n";

int fail(const std::string& message) {
    std::cerr << "kavrin-browse: " << message << "\n\n" << usage;
    return 2;
}

void printLine(const std::string& line) {
    std::fputs((line + '\n').c_str(), stdout);
    std::fflush(stdout);
}

std::string joined(const std::vector<std::string>& texts) {
    std::string line;
    for (const auto& text : texts) line += (line.empty() ? "" : ",") + text;
    return line;
}

class Browse {
  public:
    Browse(std::shared_ptr<RunLoop> loop, bool tree, bool once)
        : loop_(std::move(loop)), tree_(tree), once_(once) {}

    void event(OSCServiceBrowser::Event event, const OSCService& service) {
        if (event == OSCServiceBrowser::Event::disappeared) {
            printLine("-\t" + service.name + '\t' + service.type);
            return;
        }
        found_ = true;
        printLine("+\t" + service.name + '\t' + service.type + '\t' + service.hostName + '\t' +
                  std::to_string(service.port) + '\t' + joined(service.addresses));
        if (tree_ && service.type == oscQueryServiceType && !service.addresses.empty() &&
            event == OSCServiceBrowser::Event::appeared) {
            printTree(service);
        }
    }

    void status(const OSCZeroconfStatus& status) {
        using State = OSCZeroconfStatus::State;
        if (status.state != State::daemonNotRunning && status.state != State::failed) return;
        std::cerr << "kavrin-browse: " << status.text << std::endl;
        if (once_) loop_->stop(2);
    }

    // The deadline of --once: done when no tree is still being read.
    void timeUp() {
        timeUp_ = true;
        finishIfDone();
    }

  private:
    void printTree(const OSCService& service) {
        // Numeric, since a .local name needs mDNS name lookup, which this machine may lack.
        auto client = OSCQueryClient::create(service.addresses.front(), service.port, loop_,
                                             std::chrono::seconds(2));
        const auto key = nextFetch_++;
        fetches_[key] = client;
        client->fetchTree([this, key, name = service.name](std::optional<OSCQueryNode> tree,
                                                          const std::string& error) {
            if (tree) {
                for (const auto* method : tree->methods()) {
                    printLine(method->fullPath + '\t' + method->attributes.type.value_or(""));
                }
            } else {
                std::cerr << "kavrin-browse: cannot read the tree of \"" << name << "\": " << error
                          << std::endl;
            }
            fetches_.erase(key);
            finishIfDone();
        });
    }

    void finishIfDone() {
        if (timeUp_ && fetches_.empty()) loop_->stop(found_ ? 0 : 1);
    }

    const std::shared_ptr<RunLoop> loop_;
    const bool tree_, once_;
    bool found_ = false, timeUp_ = false;
    std::map<int, std::shared_ptr<OSCQueryClient>> fetches_;
    int nextFetch_ = 0;
};

}  // namespace

int main(int argc, char** argv) {
    bool tree = false, once = false;
    std::optional<double> timeout;
    std::vector<std::string> types;
    for (int i = 1; i < argc; ++i) {
        const std::string_view option = argv[i];
        if (option == "--help" || option == "-h") {
            std::cout << usage;
            return 0;
        } else if (option == "--tree") {
            tree = true;
        } else if (option == "--once") {
            once = true;
        } else if (option == "--timeout" || option == "--type") {
            if (i + 1 >= argc) return fail("missing value after " + std::string(option));
            const std::string value = argv[++i];
            if (option == "--type") {
                types.push_back(value);
                continue;
            }
            std::size_t used = 0;
            try {
                timeout = std::stod(value, &used);
            } catch (const std::exception&) {
            }
            if (!timeout || used != value.size() || !(*timeout >= 0 && *timeout <= 86400)) {
                return fail("not a number of seconds: " + value);
            }
        } else {
            return fail("unknown argument " + std::string(option));
        }
    }
    if (once != timeout.has_value()) return fail("--once and --timeout go together");
    if (types.empty()) types = OSCServiceBrowser::oscServiceTypes();

    auto loop = std::make_shared<RunLoop>();
    loop->stopOnSignals({SIGINT, SIGTERM});
    Browse browse(loop, tree, once);
    OSCServiceBrowser browser(
        types, loop,
        [&](OSCServiceBrowser::Event event, const OSCService& service) { browse.event(event, service); },
        [&](const OSCZeroconfStatus& status) { browse.status(status); });
    if (once) {
        loop->asyncAfter(std::chrono::duration_cast<DispatchQueue::Clock::duration>(
                             std::chrono::duration<double>(*timeout)),
                         [&] { browse.timeUp(); });
    }
    return loop->run();
}
