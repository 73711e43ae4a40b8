// Sound for tests on machines without sound hardware: a PulseAudio server with one silent sink, whose monitor records
// what is played on it. Programs reach it as ALSA devices. It needs no rights and touches no other server.
//
//     SoundServer server;
//     enter(server.environment());   // before the first ovl_audio_ call: PortAudio reads it once in a process
#pragma once

#include <sys/types.h>

#include <string>
#include <utility>
#include <vector>

// Names and values of environment variables.
using Environment = std::vector<std::pair<std::string, std::string>>;

// Sets the variables for this process.
void enter(const Environment& environment);

// With this, streams that are opened have so much sound with the server, more than ALSA knows of: no gap when a busy
// machine is late with more, and a monitor hears it that much earlier than ALSA reckons.
inline constexpr double DEEP_BUFFER_S = 0.1;
inline Environment deep_buffers() {
    return {{"PULSE_LATENCY_MSEC", "100"}};
}

// A directory below that for temporary files, removed with all it holds.
class TemporaryDirectory {
  public:
    TemporaryDirectory();
    ~TemporaryDirectory();
    TemporaryDirectory(const TemporaryDirectory&) = delete;
    TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;
    const std::string& path() const { return path_; }

  private:
    std::string path_;
};

// The constructor and restart() throw std::runtime_error when the server does not answer within 10 s. It ends with the
// object, and with the thread that started it, however that ends.
class SoundServer {
  public:
    static bool installed();  // a program named pulseaudio is in PATH

    SoundServer();
    ~SoundServer();
    SoundServer(const SoundServer&) = delete;
    SoundServer& operator=(const SoundServer&) = delete;

    // What a process needs to find the server, and nothing else, as its sound devices. Holds over a restart.
    Environment environment() const;

    pid_t pid() const { return pid_; }  // 0 when it does not run
    void pause();                       // it stalls, its connections stay
    void resume();
    void stop();   // it says goodbye to its clients and ends
    void crash();  // it ends on the spot
    void restart();

  private:
    void start();
    bool ended_within(double seconds);

    TemporaryDirectory directory_;
    pid_t pid_ = 0;
};

// A machine without any sound device.
class SoundlessMachine {
  public:
    SoundlessMachine();
    Environment environment() const;

  private:
    TemporaryDirectory directory_;
};
