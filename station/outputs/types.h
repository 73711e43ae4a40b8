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

// Messages to a broker, which acknowledges each; or, with confirm = "collector", to a collector behind it.
inline constexpr std::array MQTT_KEYS = {Key{"host", Kind::TEXT, true}, Key{"port", Kind::NUMBER, false, 1, 65535},
                                         Key{"user", Kind::TEXT},       Key{"password", Kind::SECRET},
                                         Key{"ca_file", Kind::TEXT},    Key{"client_id", Kind::TEXT},
                                         Key{"prefix", Kind::TEXT},     Key{"discovery", Kind::TEXT},
                                         Key{"confirm", Kind::TEXT}};
std::unique_ptr<Output> make_mqtt_output(const Values& values, const Keeper& keeper);

// Datagrams as WSJT-X sends them, to one program or to a multicast group.
inline constexpr std::array UDP_KEYS = {Key{"host", Kind::TEXT, true}, Key{"port", Kind::NUMBER, false, 1, 65535},
                                        Key{"name", Kind::TEXT}, Key{"ttl", Kind::NUMBER, false, 0, 255}};
std::unique_ptr<Output> make_udp_output(const Values& values, const Keeper& keeper);

// Reports to PSK Reporter.
inline constexpr std::array PSKREPORTER_KEYS = {Key{"host", Kind::TEXT}, Key{"port", Kind::NUMBER, false, 1, 65535}};
std::unique_ptr<Output> make_pskreporter_output(const Values& values, const Keeper& keeper);

// A server that cluster clients connect to, who see the spots from then on.
inline constexpr std::array TELNET_KEYS = {Key{"address", Kind::TEXT}, Key{"port", Kind::NUMBER, false, 1, 65535},
                                           Key{"spotter", Kind::TEXT},
                                           Key{"most_clients", Kind::NUMBER, false, 1, 1000}};
std::unique_ptr<Output> make_telnet_output(const Values& values, const Keeper& keeper);

// POST to a web server, as lines of JSON or as an array.
inline constexpr std::array WEBHOOK_KEYS = {Key{"url", Kind::TEXT, true},
                                            Key{"token", Kind::SECRET},
                                            Key{"format", Kind::TEXT},
                                            Key{"most_spots", Kind::NUMBER, false, 1, 200},
                                            Key{"seconds", Kind::NUMBER, false, 0.1, 60},
                                            Key{"ca_file", Kind::TEXT}};
std::unique_ptr<Output> make_webhook_output(const Values& values, const Keeper& keeper);
