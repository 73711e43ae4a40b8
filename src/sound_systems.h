// What PortAudio finds below it when it starts.
#pragma once

// While it exists, ALSA and JACK do not print to standard error what they miss while PortAudio tries all they know.
// What a host does with ALSA's messages in other threads, or has set for all of them, stays. A library that is not
// loaded, as PortAudio may come without it, is left alone.
class QuietSoundSystems {
  public:
    QuietSoundSystems();
    ~QuietSoundSystems();
    QuietSoundSystems(const QuietSoundSystems&) = delete;
    QuietSoundSystems& operator=(const QuietSoundSystems&) = delete;

  private:
    void* alsa_;  // libraries, null where not loaded
    void* jack_;
    void* alsa_handler_ = nullptr;  // what they had before
    void* jack_error_ = nullptr;
    void* jack_info_ = nullptr;
};

// Makes sure that PortAudio may list ALSA's devices: it ends the process where all of ALSA's names are devices that can
// be opened, or there is none. False where ALSA's configuration cannot be read; PortAudio does not start then.
bool prepare_alsa_names();
