// velmora-log: listens where the driver sends its log, [::1]:19640, and
// prints each line, or writes it to a file, until a signal ends it.
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "Network/Socket.h"
#include "System/Log.h"

namespace {

volatile std::sig_atomic_t signalled = 0;

void onSignal(int) {
    signalled = 1;
}

const char* usage =
    "usage: velmora-log [options]\n"
    "  --port N     listen on [::1]:N (default 19640; 0: a free port, printed)\n"
    "  --file FILE  write the lines to FILE instead of the console\n"
    "  --raw        the datagrams as they came, with the syslog priority\n";

const char* severityNames[8] = {"emerg", "alert", "crit", "error", "warning", "notice", "info", "debug"};

// "<PRI>MMM DD hh:mm:ss host text" becomes "MMM DD hh:mm:ss severity text".
std::string readable(const std::string& datagram) {
    std::size_t close = datagram.find('>');
    if (datagram.empty() || datagram[0] != '<' || close == std::string::npos || close > 4) return datagram;
    int severity = std::atoi(datagram.c_str() + 1) & 7;
    std::string rest = datagram.substr(close + 1);
    // The stamp is 15 characters, then the host name and a blank.
    std::size_t text = rest.size() > 16 ? rest.find(' ', 16) : std::string::npos;
    if (text == std::string::npos) return std::string(severityNames[severity]) + " " + rest;
    return rest.substr(0, 15) + " " + severityNames[severity] + " " + rest.substr(text + 1);
}

}  // namespace

int main(int argc, char** argv) {
    int port = NORVA::Syslog::defaultPort;
    std::string path;
    bool raw = false;
    for (int i = 1; i < argc; ++i) {
        std::string option = argv[i];
        if (option == "--raw") {
            raw = true;
        } else if (option == "--help" || option == "-h") {
            std::printf("%s", usage);
            return 0;
        } else if ((option == "--port" || option == "--file") && i + 1 < argc) {
            std::string value = argv[++i];
            char* end = nullptr;
            if (option == "--file") {
                path = value;
            } else if (port = int(std::strtol(value.c_str(), &end, 10));
                       value.empty() || *end != 0 || port < 0 || port > 65535) {
                std::fprintf(stderr, "velmora-log: bad port '%s'\n%s", value.c_str(), usage);
                return 2;
            }
        } else {
            std::fprintf(stderr, "velmora-log: bad argument '%s'\n%s", option.c_str(), usage);
            return 2;
        }
    }

    NORVA::UDPV6 socket;
    NORVA::IPAddress address = NORVA::IPAddress::loopback(std::uint16_t(port));
    if (!socket.open(NORVA::Socket::udp6) || !socket.bind(address)) {
        std::fprintf(stderr, "velmora-log: can't listen on [::1]:%d (another listener has the port?)\n",
                     port);
        return 2;
    }
    std::FILE* out = stdout;
    if (!path.empty() && (out = std::fopen(path.c_str(), "a")) == nullptr) {
        std::fprintf(stderr, "velmora-log: can't write %s\n", path.c_str());
        return 2;
    }
    std::fprintf(stderr, "velmora-log: listening on [::1]:%u\n", unsigned(address.port()));
    std::signal(SIGINT, onSignal);
    std::signal(SIGTERM, onSignal);

    char datagram[4096];
    while (signalled == 0) {
        int ready = socket.waitReadable(NORVA::TimeValue::fromMs(200));
        if (ready == 0) {
            std::fprintf(stderr, "velmora-log: the socket failed (error %d)\n", int(socket.lastError));
            return 1;
        }
        std::size_t received = 0;
        NORVA::IPAddress peer;
        if (ready != 2 || !socket.receiveFrom(datagram, sizeof datagram, received, peer) || received == 0)
            continue;
        std::string line(datagram, received);
        while (!line.empty() && (line.back() == '\n' || line.back() == '\0')) line.pop_back();
        std::fprintf(out, "%s\n", raw ? line.c_str() : readable(line).c_str());
        std::fflush(out);
    }
    if (out != stdout) std::fclose(out);
    return 0;
}
