#include "program.h"

#include <exception>
#include <new>
#include <string>

#include "base/console.h"
#include "base/error.h"
#include "exit_status.h"
#include "system/interrupts.h"

int run_program(const std::function<int()>& program) {
    ignore_broken_outputs();
    try {
        return program();
    } catch (const std::bad_alloc&) {
        print_error("memory is short");
    } catch (const std::exception& error) {
        print_error(error.what());
    }
    return EXIT_FAILED;
}

int run_command_line(const CLI::App& app, const std::function<void()>& parse, const int& status) {
    bool refused = false;
    const auto refuse = [&](const char* reason) {
        print_error(reason);
        refused = true;
    };
    try {
        parse();
    } catch (const CLI::CallForHelp&) {
        print(app.help());
    } catch (const CLI::CallForVersion& version) {
        print(std::string(version.what()) + "\n");
    } catch (const CLI::ParseError& error) {
        refuse(error.what());
    } catch (const UsageError& error) {
        refuse(error.what());
    }
    const bool written = flush_output();
    if (refused) return EXIT_USAGE;
    return !written && status == EXIT_DONE ? EXIT_FAILED : status;
}
