#include "TsharkCapture.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <sstream>

#include "RpcTestClient.h"

namespace {

// Markers go to the discard port; Start's and Stop's differ in length, so
// the summary lines ("... → 9 Len=N") tell them apart.
const uint16_t DISCARD_PORT = 9;
const size_t START_MARKER = 5;
const size_t STOP_MARKER = 9;

void SendMarker(size_t length) {
    int fd = socket(AF_INET, SOCK_DGRAM, 0);
    if (fd < 0) return;
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(DISCARD_PORT);
    to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    sendto(fd, "marker---", length, 0, reinterpret_cast<sockaddr*>(&to), sizeof to);
    close(fd);
}

std::string ReadText(const std::string& path) {
    std::ifstream in(path);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
}

}  // namespace

// tshark prints a summary line per packet that reached the file (-P, flushed
// with -l): a new marker line means the capture has caught up.
bool TsharkCapture::MarkerCaptured(size_t length) {
    std::string arrow = "\xe2\x86\x92 9 Len=" + std::to_string(length);
    std::istringstream lines(ReadText(m_file + ".out"));
    for (std::string line; std::getline(lines, line);)
        if (line.find(arrow) != std::string::npos) return true;
    return false;
}

bool TsharkCapture::Start(const std::string& captureFilter, std::string* why) {
    std::string filter = "(" + captureFilter + ") or udp port 9";
    m_pid = fork();
    if (m_pid == 0) {
        if (!freopen((m_file + ".out").c_str(), "w", stdout) || !freopen((m_file + ".log").c_str(), "w", stderr))
            _exit(126);
        execlp("tshark", "tshark", "-n", "-l", "-P", "-i", "lo", "-f", filter.c_str(), "-w", m_file.c_str(),
               (char*)nullptr);
        _exit(127);
    }
    if (m_pid < 0) {
        if (why) *why = "fork failed";
        return false;
    }
    int round = 0;
    bool live = WaitUntil([this, &round] {
        if (round++ % 25 == 0) SendMarker(START_MARKER);  // one every 50 ms
        return MarkerCaptured(START_MARKER);
    });
    if (!live && why) *why = "tshark did not start capturing: " + ReadText(m_file + ".log");
    return live;
}

void TsharkCapture::Stop() {
    if (m_pid <= 0) return;
    int round = 0;
    WaitUntil([this, &round] {
        if (round++ % 25 == 0) SendMarker(STOP_MARKER);  // again until seen
        return MarkerCaptured(STOP_MARKER);
    });
    kill(m_pid, SIGINT);
    int status = 0;
    waitpid(m_pid, &status, 0);
    m_pid = -1;
}
