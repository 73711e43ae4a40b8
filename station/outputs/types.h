// The types of outputs, and what the table of each may hold.
#pragma once

#include <array>
#include <memory>

#include "outputs/output.h"

// Lines of JSON at the end of a file. When it is full it becomes FILE.1, that FILE.2, and so on.
inline constexpr std::array FILE_KEYS = {Key{"path", Kind::TEXT, true},
                                         Key{"most_megabytes", Kind::NUMBER, false, 0.001, 1e6},
                                         Key{"keep_files", Kind::NUMBER, false, 1, 1000}};
std::unique_ptr<Output> make_file_output(const Values& values, const Keeper& keeper);

// A program that is run for each spot, with its line of JSON on standard input. No shell sees it.
inline constexpr std::array COMMAND_KEYS = {Key{"program", Kind::TEXT, true}, Key{"arguments", Kind::TEXTS},
                                            Key{"seconds", Kind::NUMBER, false, 0.1, 60}};
std::unique_ptr<Output> make_command_output(const Values& values, const Keeper& keeper);

// Messages to a broker, which acknowledges each.
inline constexpr std::array MQTT_KEYS = {Key{"host", Kind::TEXT, true}, Key{"port", Kind::NUMBER, false, 1, 65535},
                                         Key{"user", Kind::TEXT},       Key{"password", Kind::SECRET},
                                         Key{"ca_file", Kind::TEXT},    Key{"client_id", Kind::TEXT},
                                         Key{"prefix", Kind::TEXT},     Key{"discovery", Kind::TEXT}};
std::unique_ptr<Output> make_mqtt_output(const Values& values, const Keeper& keeper);

// Datagrams as WSJT-X sends them, to one program or to a multicast group.
inline constexpr std::array UDP_KEYS = {Key{"host", Kind::TEXT, true}, Key{"port", Kind::NUMBER, false, 1, 65535},
                                        Key{"name", Kind::TEXT}, Key{"ttl", Kind::NUMBER, false, 0, 255}};
std::unique_ptr<Output> make_udp_output(const Values& values, const Keeper& keeper);
