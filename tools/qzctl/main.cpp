// SPDX-License-Identifier: MIT
// qzctl: the families of the library on the command line. This file holds the table of the commands, from
// which the usage, the help and the completion are made, and what is done with the arguments.
#include "../arguments.h"
#include "command.h"

#include <getopt.h>
#include <iterator>
#include <string_view>

namespace qzctl
{
namespace
{

constexpr int MANY = 1 << 20;

struct OptionRow {
    const char *name;
    const char *argument; // null: none
    const char *help;
};

constexpr OptionRow OPTION_TABLE[OPTIONS] = {
    {"backup", "FILE", "keep the environment in FILE before it is written"},
    {"baud", "RATE", "of the line (default 115200; 0 leaves it as it is)"},
    {"count", "N", "end after N"},
    {"device", "TTY", "the modem's line (default: $QZCTL_MODEM, else /dev/ttyUSB2)"},
    {"distance", "N", "of the route, 1 to 255 (default 1)"},
    {"force", nullptr, "do it in spite of what would be lost"},
    {"group", nullptr, "unset the whole group"},
    {"ident", "NAME", "the name before the message (default qzctl)"},
    {"image", "FILE", "work on the end of FILE instead of the flash"},
    {"interval", "S", "seconds between two tables (default 1)"},
    {"json", nullptr, "print JSON"},
    {"file", "PATH", "work on PATH instead of a service's file, or log to it"},
    {"pid", "PID", "only to that process"},
    {"timeout", "S", "seconds to wait"},
    {"to", "NAME", "only to processes of that name"},
    {"topic", nullptr, "NAME is a topic: send to all that are on the bus"},
    {"trace", nullptr, "serve the bus with mbusd and print every packet; NAME's alone if given"},
    {"transcript", "FILE", "append what goes over the line to FILE"},
    {"type", "N", "type of the packet, 0 to 3 (default 0)"},
};

constexpr unsigned bit(Option option)
{
    return 1U << option;
}

constexpr unsigned CONF = bit(PATH);
constexpr unsigned ENV = bit(IMAGE);
constexpr unsigned ENV_CHANGE = bit(IMAGE) | bit(BACKUP) | bit(FORCE);

struct Command {
    const char *name;
    const char *arguments;
    int min, max; // number of words after the name
    unsigned options;
    const char *help;
    const char *example;
    int (*run)(const Arguments &arguments);
};

constexpr Command COMMANDS[] = {
    {"conf list", "[GROUP]", 0, 1, CONF | bit(JSON), "list a service's parameters", "conf netd list",
     conf_list},
    {"conf get", "[GROUP] NAME", 1, 2, CONF, "print a parameter's value", "conf netd get wan apn", conf_get},
    {"conf set", "[GROUP] NAME[=VALUE]...", 1, MANY, CONF | bit(FORCE),
     "set parameters and save the file: the old one or the new one, whatever happens",
     "conf netd set wan mtu=1428 dns=10.64.0.2", conf_set},
    {"conf unset", "[GROUP] NAME...", 1, MANY, CONF | bit(FORCE) | bit(GROUP),
     "delete parameters, all of that name, or a group", "conf netd unset wan obsolete", conf_unset},
    {"env list", "", 0, 0, ENV | bit(JSON) | bit(BACKUP), "list the boot environment", "env list --json",
     env_list},
    {"env get", "NAME", 1, 1, ENV | bit(BACKUP), "print a variable's value", "env get baudrate", env_get},
    {"env set", "NAME=VALUE...", 1, MANY, ENV_CHANGE, "set variables, in one write",
     "env set bootcount=0 bootdelay=3 --backup /data/env.bin", env_set},
    {"env unset", "NAME...", 1, MANY, ENV_CHANGE, "delete variables, in one write", "env unset bootcount",
     env_unset},
    {"env clear", "", 0, 0, ENV_CHANGE, "make the environment empty", "env clear --backup /data/env.bin",
     env_clear},
    {"env verify", "", 0, 0, ENV | bit(JSON) | bit(BACKUP), "tell whether the block is in order",
     "env verify", env_verify},
    {"env backup", "FILE", 1, 1, ENV | bit(FORCE), "keep the block in a file", "env backup /data/env.bin",
     env_backup},
    {"env restore", "FILE", 1, 1, ENV | bit(BACKUP), "write a kept block back", "env restore /data/env.bin",
     env_restore},
    {"log level", "[LEVEL]", 0, 1, 0, "print or set the router-wide level: debug, info, warn, error or emerg",
     "log level debug", log_level},
    {"log send", "LEVEL TEXT", 2, 2, bit(IDENT) | bit(PATH), "log a message",
     "log send warn 'the link is down'", log_send},
    {"cli get", "HEADER [ARGUMENT] KEY", 2, 3, 0,
     "print a value from a block of the command-line configuration", "cli get interface lan mtu", cli_get},
    {"bus list", "", 0, 0, bit(JSON), "list the clients, without joining the bus", "bus list", bus_list},
    {"bus top", "", 0, 0, bit(JSON) | bit(INTERVAL) | bit(COUNT),
     "packets and bytes a second, again and again", "bus top --interval 5", bus_top},
    {"bus send", "NAME TEXT", 2, 2, bit(TOPIC) | bit(TYPE), "send a packet to a client, or of a topic",
     "bus send param 'mtu=1428' --topic", bus_send},
    {"bus listen", "[NAME]", 0, 1, bit(COUNT) | bit(TIMEOUT) | bit(JSON) | bit(TRACE),
     "print the topics' packets and those for qzctl itself, or those named NAME",
     "bus listen --count 1 --timeout 10", bus_listen},
    {"bus wait", "NAME", 1, 1, bit(TIMEOUT), "wait until a client is on the bus (default 10 s)",
     "bus wait netd --timeout 30", bus_wait},
    {"at", "COMMAND...", 1, MANY, bit(DEVICE) | bit(BAUD) | bit(TIMEOUT) | bit(TRANSCRIPT) | bit(JSON),
     "send AT commands to the modem, each until its final result", "at --device /dev/ttyUSB2 AT+CSQ AT+CREG?",
     at},
    {"modem", "[NAME]", 0, 1, bit(JSON), "print the modem's status, or one value of it", "modem rssi", modem},
    {"msg send", "TYPE [TEXT]", 1, 2, bit(TO) | bit(PID), "send a local message, by default to all",
     "msg send 3 net --to boardd", msg_send},
    {"msg listen", "", 0, 0, bit(COUNT) | bit(TIMEOUT) | bit(JSON),
     "print the local messages for all or for qzctl", "msg listen --timeout 10", msg_listen},
    {"led", "[NAME [MODE]]", 0, 2, bit(JSON),
     "list the lights, print a light's mode, or set it: off, on, fast, slow, oneshot, fire, invert, 50ms or "
     "100ms",
     "led net fast", led},
    {"gpio", "[NAME [VALUE]]", 0, 2, bit(JSON), "list the GPIOs, print one's value, or set it: 0 or 1",
     "gpio sim_select 1", gpio},
    {"route list", "", 0, 0, bit(JSON), "list the routes that rules with a source look up", "route list",
     route_list},
    {"route via", "ADDRESS", 1, 1, 0, "print the device that the main table has for an address",
     "route via 192.0.2.1", route_via},
    {"route add", "PREFIX NEXTHOP", 2, 2, bit(DISTANCE), "ask the routing daemon to add a route",
     "route add 0.0.0.0/0 10.64.0.1", route_add},
    {"route del", "PREFIX NEXTHOP", 2, 2, bit(DISTANCE), "ask the routing daemon to delete a route",
     "route del 0.0.0.0/0 10.64.0.1", route_del},
    {"if", "[NAME]", 0, 1, bit(JSON), "list the network interfaces, or print all about one", "if lo",
     interfaces},
    {"probe tcp", "HOST PORT", 2, 2, bit(TIMEOUT),
     "time until a host takes a connection (limit 5 s by default)", "probe tcp 192.0.2.1 80 --timeout 2",
     probe_tcp},
    {"probe dns", "NAME", 1, 1, bit(TIMEOUT), "print the address of a name (limit 5 s by default)",
     "probe dns localhost", probe_dns},
    {"watchdog feed", "", 0, 0, 0,
     "feed the watchdog once; from then on it resets the board unless fed in time", "watchdog feed",
     watchdog_feed},
    {"watchdog stop", "", 0, 0, 0, "stop the watchdog", "watchdog stop", watchdog_stop},
    {"sys", "", 0, 0, bit(JSON),
     "print what the device is, its versions, uptime, memory and processor (takes 1 s)", "sys --json", sys},
    {"run", "-- COMMAND...", 1, MANY, bit(TIMEOUT),
     "run a command, for no longer than the limit, if there is one",
     "run --timeout 10 -- ping -c 1 192.0.2.1", run},
};

using arguments::hold_standard_streams;

constexpr const char *TOOL = "qzctl";
constexpr std::string_view CONF_GROUP = "conf";

// The first word of a command's name.
std::string_view group_of(const Command &command)
{
    return {command.name, strcspn(command.name, " ")};
}

bool begins_group(const Command &command)
{
    return &command == COMMANDS || group_of(command) != group_of((&command)[-1]);
}

// The second word of its name; null where it has one word only.
const char *action_of(const Command &command)
{
    const char *blank = strchr(command.name, ' ');
    return blank == nullptr ? nullptr : blank + 1;
}

// The first row of a group; null: there is no such group.
const Command *find_group(std::string_view group)
{
    for (const Command &command : COMMANDS)
        if (group_of(command) == group)
            return &command;
    return nullptr;
}

const Command *find_action(std::string_view group, const char *action)
{
    for (const Command &command : COMMANDS) {
        const char *own = action_of(command);
        if (group_of(command) == group && (own == nullptr || (action != nullptr && strcmp(own, action) == 0)))
            return &command;
    }
    return nullptr;
}

// The actions of a group, or all groups for the empty one: "list, get, set".
const char *words_of(std::string_view group)
{
    static char list[256];
    list[0] = '\0';
    for (const Command &command : COMMANDS) {
        if (group.empty() ? !begins_group(command) : group_of(command) != group)
            continue;
        const std::string_view word = group.empty() ? group_of(command) : action_of(command);
        (void)snprintf(list + strlen(list), sizeof list - strlen(list), "%s%.*s", *list == '\0' ? "" : ", ",
                       static_cast<int>(word.size()), word.data());
    }
    return list;
}

// ---- Usage, help and completion

// The command as it is typed, with its arguments.
const char *synopsis(const Command &command)
{
    static char text[80];
    const std::string_view group = group_of(command);
    (void)snprintf(text, sizeof text, "%.*s%s%s%s%s", static_cast<int>(group.size()), group.data(),
                   group == CONF_GROUP ? " SERVICE" : "", command.name + group.size(),
                   *command.arguments == '\0' ? "" : " ", command.arguments);
    return text;
}

void print_options(unsigned options)
{
    (void)puts("");
    for (unsigned i = 0; i < OPTIONS; ++i) {
        const OptionRow &row = OPTION_TABLE[i];
        if ((options & bit(static_cast<Option>(i))) != 0)
            (void)printf("  --%s %-*s  %s\n", row.name, 15 - static_cast<int>(strlen(row.name)),
                         row.argument == nullptr ? "" : row.argument, row.help);
    }
    (void)puts("  -h, --help          print this text");
}

void print_statuses()
{
    (void)puts("\nThe exit status is 0 when it is done, 1 when the answer is no or it failed, 2 for wrong\n"
               "usage, and 3 when nothing came in time.");
}

void print_help(const Command &command)
{
    (void)printf("Usage: %s %s%s\n%c%s.\n", TOOL, synopsis(command),
                 command.options == 0 ? "" : " [OPTION]...", command.help[0] - 'a' + 'A', command.help + 1);
    print_options(command.options);
    (void)printf("\nFor example:  %s %s\n", TOOL, command.example);
}

void print_group_help(const Command &first)
{
    unsigned options = 0;
    for (const Command *command = &first; command != std::end(COMMANDS); ++command) {
        if (group_of(*command) != group_of(first))
            break;
        (void)printf("%s %s %s\n           %s\n", command == &first ? "Usage:" : "      ", TOOL,
                     synopsis(*command), command->help);
        options |= command->options;
    }
    print_options(options);
    if (group_of(first) == CONF_GROUP)
        (void)puts("\nWith --file PATH the SERVICE is left out.");
    (void)printf("\nFor example:  %s %s\n", TOOL, first.example);
}

void print_usage()
{
    (void)printf(
        "Usage: %s COMMAND [ARGUMENT]... [OPTION]...\n"
        "Look at a router and change it: parameters, boot environment, bus, modem, network, board.\n\n",
        TOOL);
    for (const Command &command : COMMANDS)
        (void)printf("  %-40s %.*s\n", synopsis(command), static_cast<int>(strcspn(command.help, ":;")),
                     command.help);
    (void)printf("\n  -h, --help          print this text; after a command, that command's\n"
                 "  --version           print the version\n"
                 "  --completion bash   print the completion for bash\n");
    print_statuses();
    (void)printf("\nFor example:  %s %s\n", TOOL, COMMANDS[1].example);
}

void print_completion_of(const Command &first)
{
    unsigned options = 0;
    const std::string_view group = group_of(first);
    (void)printf("    %.*s) words='", static_cast<int>(group.size()), group.data());
    for (const Command *command = &first; command != std::end(COMMANDS) && group_of(*command) == group;
         ++command) {
        if (action_of(*command) != nullptr)
            (void)printf("%s ", action_of(*command));
        options |= command->options;
    }
    for (unsigned i = 0; i < OPTIONS; ++i)
        if ((options & bit(static_cast<Option>(i))) != 0)
            (void)printf("--%s ", OPTION_TABLE[i].name);
    (void)puts("--help' ;;");
}

// Where none of the words fits, bash goes on with the names of files.
void print_completion()
{
    (void)puts("# bash completion of qzctl, made by qzctl --completion bash\n"
               "_qzctl() {\n"
               "    local words='' current=${COMP_WORDS[COMP_CWORD]}\n"
               "    case \"$COMP_CWORD ${COMP_WORDS[1]}\" in\n"
               "    '1 '*) words='--help --version'");
    (void)printf("        words+=' ");
    for (const Command &command : COMMANDS)
        if (begins_group(command))
            (void)printf("%.*s ", static_cast<int>(group_of(command).size()), command.name);
    (void)puts(
        "' ;;\n"
        "    '2 conf') words=$(cd /tmp/config 2>/dev/null && ls -- *.conf 2>/dev/null | grep -vx cli.conf)\n"
        "        words=\"${words//.conf/} --file\" ;;\n"
        "    '3 led') words='off on fast slow oneshot fire invert 50ms 100ms' ;;\n"
        "    '3 log') words='debug info warn error emerg' ;;\n"
        "    '2 led') words=$(ls /sys/class/leds 2>/dev/null) ;;\n"
        "    '2 gpio') words=$(ls /sys/class/gpio 2>/dev/null) ;;\n"
        "    '2 if') words=$(ls /sys/class/net 2>/dev/null) ;;\n"
        "    esac\n"
        "    [ -n \"$words\" ] || case \"${COMP_WORDS[1]}\" in");
    for (const Command &command : COMMANDS)
        if (begins_group(command))
            print_completion_of(command);
    (void)puts("    esac\n"
               "    mapfile -t COMPREPLY < <(compgen -W \"$words\" -- \"$current\")\n"
               "}\n"
               "complete -o default -F _qzctl qzctl");
}

// ---- The command line

// Nothing counts as done whose output could not be written.
int finish(int status)
{
    if (fflush(stdout) != 0 || ferror(stdout) != 0) {
        const int error = errno;
        return say(NO, "standard output: %s", strerror(error));
    }
    return status;
}

struct CommandLine {
    Arguments arguments{};
    bool wants_help = false;
    const char *completion = nullptr;
    bool wants_version = false;
};

enum { HELP = 256, VERSION, COMPLETION };

CommandLine read_options(int argc, char **argv)
{
    option options[OPTIONS + 4] = {};
    for (unsigned i = 0; i < OPTIONS; ++i)
        options[i] = {OPTION_TABLE[i].name,
                      OPTION_TABLE[i].argument == nullptr ? no_argument : required_argument, nullptr,
                      static_cast<int>(i) + 1};
    options[OPTIONS] = {"help", no_argument, nullptr, HELP};
    options[OPTIONS + 1] = {"version", no_argument, nullptr, VERSION};
    options[OPTIONS + 2] = {"completion", required_argument, nullptr, COMPLETION};
    CommandLine line;
    argv[0] = const_cast<char *>(TOOL); // for getopt_long's own messages
    int chosen = 0;
    while ((chosen = getopt_long(argc, argv, "h", options, nullptr)) != -1) {
        if (chosen == '?')
            exit(WRONG_USAGE); // getopt_long has said why
        if (chosen == HELP || chosen == 'h')
            line.wants_help = true;
        else if (chosen == VERSION)
            line.wants_version = true;
        else if (chosen == COMPLETION)
            line.completion = optarg;
        else
            line.arguments.options[chosen - 1] = optarg == nullptr ? "" : optarg;
    }
    line.arguments.words = argv + optind;
    line.arguments.count = argc - optind;
    return line;
}

void drop_words(Arguments &arguments, int number)
{
    arguments.words += number;
    arguments.count -= number;
}

// Takes the command's name off the words.
const Command &take_command(Arguments &arguments)
{
    if (arguments.count == 0)
        refuse("no command: it is one of %s", words_of({}));
    const char *typed = arguments.words[0];
    const std::string_view group = typed;
    const Command *first = find_group(group);
    if (first == nullptr)
        refuse("%.40s: no such command: it is one of %s", typed, words_of({}));
    drop_words(arguments, 1);
    if (action_of(*first) == nullptr)
        return *first;
    if (group == CONF_GROUP && !arguments.has(PATH)) {
        if (arguments.count == 0)
            refuse("conf: no service: conf SERVICE %s", words_of(group));
        if (arguments.count == 1 || find_action(group, arguments.words[1]) == nullptr)
            refuse("conf %.40s: after the service comes one of %s", arguments.words[0], words_of(group));
        arguments.service = arguments.words[0];
        drop_words(arguments, 1);
    }
    if (arguments.count == 0)
        refuse("%s: no action: it is one of %s", typed, words_of(group));
    const Command *command = find_action(group, arguments.words[0]);
    if (command == nullptr)
        refuse("%s %.40s: no such action: it is one of %s", typed, arguments.words[0], words_of(group));
    drop_words(arguments, 1);
    return *command;
}

int help(const Arguments &arguments)
{
    if (arguments.count == 0) {
        print_usage();
        return DONE;
    }
    const std::string_view group = arguments.words[0];
    const Command *first = find_group(group);
    if (first == nullptr)
        refuse("%.40s: no such command: it is one of %s", arguments.words[0], words_of({}));
    const Command *command = find_action(group, arguments.word(1));
    if (command == nullptr && group == CONF_GROUP)
        command = find_action(group, arguments.word(2));
    if (command == nullptr)
        print_group_help(*first);
    else
        print_help(*command);
    return DONE;
}

void check(const Command &command, const Arguments &arguments)
{
    for (unsigned i = 0; i < OPTIONS; ++i)
        if (arguments.options[i] != nullptr && (command.options & bit(static_cast<Option>(i))) == 0)
            refuse("%s takes no --%s; see %s %s --help", command.name, OPTION_TABLE[i].name, TOOL,
                   command.name);
    if (arguments.count < command.min)
        refuse("%s: an argument is missing: %s", command.name, command.arguments);
    if (arguments.count > command.max)
        refuse("%s: %.40s: one argument too many", command.name, arguments.words[command.max]);
}

int serve(int argc, char **argv)
{
    CommandLine line = read_options(argc, argv);
    if (line.completion != nullptr) {
        if (strcmp(line.completion, "bash") != 0)
            refuse("--completion %.40s: it is for bash only", line.completion);
        print_completion();
        return DONE;
    }
    if (line.wants_help)
        return help(line.arguments);
    if (line.wants_version) {
        (void)puts("qzctl (qzlib) " QZLIB_VERSION);
        return DONE;
    }
    const Command &command = take_command(line.arguments);
    line.arguments.command = command.name;
    check(command, line.arguments);
    return command.run(line.arguments);
}

} // namespace

const char *option_name(Option option)
{
    static char name[32];
    (void)snprintf(name, sizeof name, "--%s", OPTION_TABLE[option].name);
    return name;
}

} // namespace qzctl

int main(int argc, char **argv)
{
    qzctl::hold_standard_streams();
    openmsg(qzctl::TOOL); // what the library logs
    return qzctl::finish(qzctl::serve(argc, argv));
}
