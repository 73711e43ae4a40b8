#include "sound_server.h"

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>

namespace {

constexpr double START_SECONDS = 10;
constexpr double END_SECONDS = 5;

// One device by name and the default; both are the server's default sink and that sink's monitor.
constexpr const char* ALSA_DEVICES =
    "pcm.pulse { type pulse hint { show on description \"Test sound server\" } }\n"
    "pcm.default { type pulse hint { show on description \"Test sound server\" } }\n"
    "ctl.default { type pulse }\n";

std::string find_program(const std::string& name) {
    const char* path = std::getenv("PATH");
    std::istringstream directories(path != nullptr ? path : "");
    for (std::string directory; std::getline(directories, directory, ':');) {
        const std::string program = directory + "/" + name;
        if (access(program.c_str(), X_OK) == 0) return program;
    }
    return "";
}

// Whether the condition becomes true within a time, by polling.
template <typename Condition>
bool holds_within(double seconds, Condition condition) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return true;
}

bool accepts_connections(const std::string& socket_path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (socket_path.size() >= sizeof address.sun_path) throw std::runtime_error("too long a path: " + socket_path);
    socket_path.copy(address.sun_path, sizeof address.sun_path - 1);
    const int end = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const bool connected = connect(end, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
    close(end);
    return connected;
}

void write_file(const std::string& path, const std::string& text) {
    std::ofstream file(path);
    file << text;
    if (!file.flush()) throw std::runtime_error("cannot write " + path);
}

std::string content(const std::string& path) {
    std::ostringstream text;
    text << std::ifstream(path).rdbuf();
    return text.str();
}

// Variables that hide all sound but what `directory` offers: its asound.conf is all that ALSA knows.
Environment sound_from(const std::string& directory, const std::string& socket) {
    return {{"ALSA_CONFIG_PATH", directory + "/asound.conf"},
            {"PULSE_SERVER", "unix:" + socket},
            {"PULSE_COOKIE", directory + "/cookie"},
            {"PULSE_RUNTIME_PATH", directory},
            {"JACK_NO_START_SERVER", "1"},
            {"JACK_DEFAULT_SERVER", "none_for_tests"}};
}

// This process's variables with those of `changes`, each as NAME=VALUE.
std::vector<std::string> environment_with(const Environment& changes) {
    std::vector<std::string> all;
    for (char** variable = environ; *variable != nullptr; variable++) {
        const std::string text = *variable;
        const std::string name = text.substr(0, text.find('='));
        if (std::none_of(changes.begin(), changes.end(), [&](const auto& change) { return change.first == name; })) {
            all.push_back(text);
        }
    }
    for (const auto& [name, value] : changes) all.push_back(name + "=" + value);
    return all;
}

std::vector<char*> pointers(std::vector<std::string>& texts) {
    std::vector<char*> all;
    for (std::string& text : texts) all.push_back(text.data());
    all.push_back(nullptr);
    return all;
}

}  // namespace

void enter(const Environment& environment) {
    for (const auto& [name, value] : environment) setenv(name.c_str(), value.c_str(), 1);
}

// ---- Directory -------------------------------------------------------------------------------------------------

TemporaryDirectory::TemporaryDirectory()
    : path_((std::filesystem::temp_directory_path() / "orvel-sound-XXXXXX").string()) {
    if (mkdtemp(path_.data()) == nullptr) throw std::runtime_error("no temporary directory");
}

TemporaryDirectory::~TemporaryDirectory() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

// ---- Server ----------------------------------------------------------------------------------------------------

bool SoundServer::installed() {
    return !find_program("pulseaudio").empty();
}

SoundServer::SoundServer() {
    write_file(directory_.path() + "/asound.conf", ALSA_DEVICES);
    start();
}

SoundServer::~SoundServer() {
    stop();
}

Environment SoundServer::environment() const {
    return sound_from(directory_.path(), directory_.path() + "/native");
}

void SoundServer::start() {
    const std::string& directory = directory_.path();
    const std::string socket = directory + "/native";
    const std::string log = directory + "/log";
    std::filesystem::remove(socket);

    const std::string program = find_program("pulseaudio");
    std::vector<std::string> arguments = {program, "-n", "--daemonize=no", "--use-pid-file=no", "--exit-idle-time=-1",
                                          "--disable-shm=yes", "--realtime=no", "--high-priority=no",
                                          "--log-target=stderr",
                                          // A client that comes while there is no sink would find no device.
                                          "-L", "module-null-sink sink_name=orvel_test rate=48000 channels=2", "-L",
                                          "module-native-protocol-unix auth-anonymous=1 socket=" + socket};
    std::vector<std::string> variables = environment_with({{"HOME", directory},
                                                           {"XDG_RUNTIME_DIR", directory},
                                                           {"XDG_CONFIG_HOME", directory},
                                                           {"PULSE_RUNTIME_PATH", directory},
                                                           {"PULSE_STATE_PATH", directory},
                                                           {"PULSE_COOKIE", directory + "/cookie"},
                                                           {"DBUS_SESSION_BUS_ADDRESS", "unix:path=/nonexistent"}});
    const std::vector<char*> argv = pointers(arguments);
    const std::vector<char*> envp = pointers(variables);

    const pid_t parent = getpid();
    const pid_t child = fork();
    if (child < 0) throw std::runtime_error("no process");
    if (child == 0) {
        // Other threads may hold locks: system calls only.
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (getppid() != parent) _exit(126);
        const int in = open("/dev/null", O_RDONLY);
        const int out = open(log.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        dup2(in, STDIN_FILENO);
        dup2(out, STDOUT_FILENO);
        dup2(out, STDERR_FILENO);
        execve(argv[0], argv.data(), envp.data());
        _exit(127);
    }
    pid_ = child;

    // When it ends by itself, pid_ becomes 0.
    holds_within(START_SECONDS, [&] { return ended_within(0) || accepts_connections(socket); });
    if (pid_ != 0 && accepts_connections(socket)) return;
    stop();
    throw std::runtime_error("the sound server does not answer: " + content(log));
}

bool SoundServer::ended_within(double seconds) {
    if (!holds_within(seconds, [&] { return waitpid(pid_, nullptr, WNOHANG) != 0; })) return false;
    pid_ = 0;
    return true;
}

void SoundServer::pause() {
    if (pid_ != 0) kill(pid_, SIGSTOP);
}

void SoundServer::resume() {
    if (pid_ != 0) kill(pid_, SIGCONT);
}

void SoundServer::stop() {
    if (pid_ == 0) return;
    kill(pid_, SIGTERM);
    resume();
    if (!ended_within(END_SECONDS)) crash();
}

void SoundServer::crash() {
    if (pid_ == 0) return;
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
    pid_ = 0;
}

void SoundServer::restart() {
    stop();
    start();
}

// ---- No server -------------------------------------------------------------------------------------------------

SoundlessMachine::SoundlessMachine() {
    // ALSA lists names without a server.
    write_file(directory_.path() + "/asound.conf", ALSA_DEVICES);
}

Environment SoundlessMachine::environment() const {
    return sound_from(directory_.path(), directory_.path() + "/none");
}
