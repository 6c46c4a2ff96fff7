// The static neighbor methods and the reload event against the static store and its file.
//
// The store writes /var/config/static_neighbor.conf and the update pass probes the neighbors,
// so every case runs in a child process with a private mount namespace (tmpfs on /var and /tmp)
// and a private network namespace (nothing it sends leaves it). The child reports its failed
// checks through a pipe.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <vector>

#include "core/settings.h"
#include "static/static_store.h"
#include "ubus/methods.h"
#include "util/paths.h"

namespace {

// Failed checks of the child, as text.
struct checks {
    std::string failures;

    void expect(bool ok, const std::string &what) {
        if (!ok) {
            failures += what + "\n";
        }
    }
    void expect_eq(const std::string &actual, const std::string &expected,
                   const std::string &what) {
        if (actual != expected) {
            failures += what + ": got [" + actual + "], want [" + expected + "]\n";
        }
    }
};

bool isolate() {
    return unshare(CLONE_NEWNS | CLONE_NEWNET) == 0 &&
           mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
           mount("tmpfs", "/var", "tmpfs", 0, "mode=0755") == 0 &&
           mkdir("/var/config", 0755) == 0 && mount("tmpfs", "/tmp", "tmpfs", 0, "mode=1777") == 0;
}

// Runs body in an isolated child; returns its failures ("" when every check held).
std::string run_isolated(const std::function<void(checks &)> &body) {
    int pipe_fds[2];
    if (pipe(pipe_fds) != 0) {
        return "pipe failed";
    }
    fflush(nullptr);
    pid_t child = fork();
    if (child == 0) {
        close(pipe_fds[0]);
        checks result;
        if (!isolate()) {
            result.failures = "isolation failed\n";
        } else {
            body(result);
        }
        ssize_t ignored = write(pipe_fds[1], result.failures.data(), result.failures.size());
        (void)ignored;
        _exit(0);
    }
    close(pipe_fds[1]);
    std::string failures;
    char chunk[4096];
    ssize_t got;
    while ((got = read(pipe_fds[0], chunk, sizeof chunk)) > 0) {
        failures.append(chunk, static_cast<size_t>(got));
    }
    close(pipe_fds[0]);
    int status = 0;
    waitpid(child, &status, 0);
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        failures += "child ended abnormally\n";
    }
    return failures;
}

void expect_isolated(const std::function<void(checks &)> &body) {
    std::string failures = run_isolated(body);
    EXPECT_TRUE(failures.empty()) << failures;
}

json_ref parse(const char *text) {
    return json_ref(json_tokener_parse(text));
}

std::string text_of(const json_ref &value) {
    return value ? json_object_to_json_string_ext(value.get(), JSON_C_TO_STRING_PLAIN) : "(none)";
}

std::string mac_text(const mac_addr &mac) {
    char text[18];
    snprintf(text, sizeof text, "%02x:%02x:%02x:%02x:%02x:%02x", mac[0], mac[1], mac[2], mac[3],
             mac[4], mac[5]);
    return text;
}

std::string ip_text(uint32_t ip) {
    char text[INET_ADDRSTRLEN];
    inet_ntop(AF_INET, &ip, text, sizeof text);
    return text;
}

std::string ip6_text(const ip6_addr &ip6) {
    char text[INET6_ADDRSTRLEN];
    inet_ntop(AF_INET6, ip6.data(), text, sizeof text);
    return text;
}

// The list, head first: "mac ip ip6 state" per node, joined by "; ".
std::string list_text() {
    std::lock_guard<std::mutex> guard(stngbr_lock);
    std::string text;
    for (static_member *node = static_member_list.head; node != nullptr; node = node->next) {
        if (!text.empty()) {
            text += "; ";
        }
        text += mac_text(node->info.mac) + " " + ip_text(node->info.ip) + " " +
                ip6_text(node->info.ip6) + " " + std::to_string(node->info.state);
    }
    return text;
}

std::string file_text() {
    std::ifstream in(STATIC_NEIGHBOR_CONF_PATH);
    if (!in) {
        return "(missing)";
    }
    std::stringstream all;
    all << in.rdbuf();
    return all.str();
}

// The MACs of the file's "static_neighbor" array, in file order, joined by " ".
std::string file_macs() {
    json_ref root(json_object_from_file(STATIC_NEIGHBOR_CONF_PATH));
    json_object *list = nullptr;
    if (!json_object_object_get_ex(root.get(), "static_neighbor", &list)) {
        return "(none)";
    }
    std::string macs;
    for (size_t i = 0; i < json_object_array_length(list); ++i) {
        json_object *mac = nullptr;
        json_object_object_get_ex(json_object_array_get_idx(list, i), "mac", &mac);
        macs += (macs.empty() ? "" : " ") + std::string(mac ? json_object_get_string(mac) : "?");
    }
    return macs;
}

void write_file(const std::string &text) {
    std::ofstream out(STATIC_NEIGHBOR_CONF_PATH, std::ios::trunc);
    out << text;
}

// Calls a method handler; returns its status, the reply text in reply.
int call(method_handler handler, const char *method, const char *request, std::string &reply) {
    json_ref message = request != nullptr ? parse(request) : nullptr;
    json_ref answer;
    int status = handler(method, message.get(), answer);
    reply = text_of(answer);
    return status;
}

constexpr const char *SUCCESS = R"({"result":"success"})";
constexpr const char *FAIL = R"({"result":"fail"})";

class StaticMethodsTest : public ::testing::Test {
  protected:
    void SetUp() override {
        if (geteuid() != 0) {
            GTEST_SKIP() << "needs root for private mount and network namespaces";
        }
    }
};

TEST_F(StaticMethodsTest, AddWithOnlyMacAddsANodeWithoutAddresses) {
    expect_isolated([](checks &c) {
        std::string reply;
        c.expect(call(ubus_static_mac_add, "add_static_neighbor", R"({"mac":"00:11:22:33:44:55"})",
                      reply) == 0,
                 "status");
        c.expect_eq(reply, SUCCESS, "reply");
        c.expect_eq(list_text(), "00:11:22:33:44:55 0.0.0.0 :: 4", "list");
        c.expect_eq(file_macs(), "00:11:22:33:44:55", "file");
    });
}

TEST_F(StaticMethodsTest, AddTakesTheAddressesGiven) {
    expect_isolated([](checks &c) {
        std::string reply;
        call(ubus_static_mac_add, "add_static_neighbor",
             R"({"mac":"00:11:22:33:44:55","ip":"127.0.0.9","ip6":"fd00::9"})", reply);
        c.expect_eq(reply, SUCCESS, "reply");
        c.expect_eq(list_text(), "00:11:22:33:44:55 127.0.0.9 fd00::9 4", "list");
    });
}

TEST_F(StaticMethodsTest, AddWithoutAStringMacRepliesSuccessAndAddsNothing) {
    expect_isolated([](checks &c) {
        for (const char *request :
             {R"({"ip":"127.0.0.2"})", R"({"mac":12345})", R"({"mac":["00:11:22:33:44:55"]})"}) {
            std::string reply;
            c.expect(call(ubus_static_mac_add, "add_static_neighbor", request, reply) == 0,
                     std::string("status of ") + request);
            c.expect_eq(reply, SUCCESS, request);
        }
        c.expect_eq(list_text(), "", "list");
        c.expect_eq(file_text(), "(missing)", "file");
    });
}

TEST_F(StaticMethodsTest, AddOrDeleteWithoutARequestObjectIsAParseError) {
    expect_isolated([](checks &c) {
        std::string reply;
        c.expect(
            call(ubus_static_mac_add, "add_static_neighbor", nullptr, reply) == METHOD_PARSE_FAILED,
            "add status");
        c.expect_eq(reply, "(none)", "add reply");
        c.expect(
            call(ubus_static_mac_del, "del_static_neighbor", nullptr, reply) == METHOD_PARSE_FAILED,
            "del status");
        c.expect_eq(reply, "(none)", "del reply");
    });
}

TEST_F(StaticMethodsTest, DeleteOfAnUnknownMacFailsAndLeavesTheFile) {
    expect_isolated([](checks &c) {
        std::string reply;
        call(ubus_static_mac_add, "add_static_neighbor", R"({"mac":"00:11:22:33:44:55"})", reply);
        std::string before = file_text();
        call(ubus_static_mac_del, "del_static_neighbor", R"({"mac":"66:77:88:99:aa:bb"})", reply);
        c.expect_eq(reply, FAIL, "reply");
        c.expect_eq(file_text(), before, "file");
        c.expect_eq(list_text(), "00:11:22:33:44:55 0.0.0.0 :: 4", "list");

        call(ubus_static_mac_del, "del_static_neighbor", R"({"other":"x"})", reply);
        c.expect_eq(reply, SUCCESS, "reply without mac");
        c.expect_eq(list_text(), "00:11:22:33:44:55 0.0.0.0 :: 4", "list kept");

        call(ubus_static_mac_del, "del_static_neighbor", R"({"mac":"00:11:22:33:44:55"})", reply);
        c.expect_eq(reply, SUCCESS, "reply of known");
        c.expect_eq(list_text(), "", "list emptied");
        c.expect_eq(file_macs(), "", "file emptied");
    });
}

TEST_F(StaticMethodsTest, ReplaceTakesEachElementAndDefaultsTheAddress) {
    expect_isolated([](checks &c) {
        std::string reply;
        c.expect(call(ubus_static_mac_qv, "qv_static_neighbor",
                      R"({"neighbor_list":[{"mac":"00:11:22:33:44:55"},)"
                      R"({"mac":"66:77:88:99:aa:bb","ip":"127.0.0.3","ip6":"fd00::3"},)"
                      R"("not an object"]})",
                      reply) == 0,
                 "status");
        c.expect_eq(reply, SUCCESS, "reply");
        // Newest first: the last element is the head.
        c.expect_eq(list_text(),
                    "00:00:00:00:00:00 255.255.255.255 :: 4; "
                    "66:77:88:99:aa:bb 127.0.0.3 fd00::3 4; "
                    "00:11:22:33:44:55 255.255.255.255 :: 4",
                    "list");
    });
}

TEST_F(StaticMethodsTest, ReplaceWithoutAnArrayFailsAndChangesNothing) {
    expect_isolated([](checks &c) {
        std::string reply;
        call(ubus_static_mac_add, "add_static_neighbor", R"({"mac":"00:11:22:33:44:55"})", reply);
        for (const char *request : {R"({})", R"({"neighbor_list":null})",
                                    R"({"neighbor_list":{"mac":"66:77:88:99:aa:bb"}})"}) {
            call(ubus_static_mac_qv, "qv_static_neighbor", request, reply);
            c.expect_eq(reply, FAIL, request);
        }
        c.expect_eq(list_text(), "00:11:22:33:44:55 0.0.0.0 :: 4", "list");
    });
}

TEST_F(StaticMethodsTest, ReplaceWithAnEmptyArrayEmptiesTheList) {
    expect_isolated([](checks &c) {
        std::string reply;
        call(ubus_static_mac_add, "add_static_neighbor", R"({"mac":"00:11:22:33:44:55"})", reply);
        call(ubus_static_mac_qv, "qv_static_neighbor", R"({"neighbor_list":[]})", reply);
        c.expect_eq(reply, SUCCESS, "reply");
        c.expect_eq(list_text(), "", "list");
        c.expect_eq(file_macs(), "", "file");
    });
}

TEST_F(StaticMethodsTest, ReplaceWithMoreThanEightElementsKeepsTheFirstEight) {
    expect_isolated([](checks &c) {
        std::string request = R"({"neighbor_list":[)";
        for (int i = 1; i <= 10; ++i) {
            char element[64];
            snprintf(element, sizeof element, R"(%s{"mac":"00:00:00:00:00:%02x"})",
                     i > 1 ? "," : "", i);
            request += element;
        }
        request += "]}";
        tarn_debug = 1;
        setenv("TARN_LOG_STDERR", "1", 1);
        testing::internal::CaptureStderr();
        std::string reply;
        call(ubus_static_mac_qv, "qv_static_neighbor", request.c_str(), reply);
        std::string log = testing::internal::GetCapturedStderr();
        tarn_debug = 0;
        c.expect_eq(reply, SUCCESS, "reply");
        c.expect_eq(file_macs(),
                    "00:00:00:00:00:08 00:00:00:00:00:07 00:00:00:00:00:06 "
                    "00:00:00:00:00:05 00:00:00:00:00:04 00:00:00:00:00:03 "
                    "00:00:00:00:00:02 00:00:00:00:00:01",
                    "file");
        c.expect(log.find("ubus_static_mac_qv: neighbor_list holds 10 entries, only the "
                          "first 8 are kept\n") != std::string::npos,
                 "count logged");
        c.expect(log.find("ubus_static_mac_qv: dropped static neighbor "
                          "[00:00:00:00:00:09]\n") != std::string::npos &&
                     log.find("ubus_static_mac_qv: dropped static neighbor "
                              "[00:00:00:00:00:0a]\n") != std::string::npos,
                 "dropped elements logged");
    });
}

TEST_F(StaticMethodsTest, ListMethodsWithoutJsonTextReturnOneWithoutReply) {
    expect_isolated([](checks &c) {
        std::string reply;
        c.expect(
            call(ubus_static_mac_qv, "qv_static_neighbor", nullptr, reply) == METHOD_NO_JSON_TEXT,
            "qv status");
        c.expect_eq(reply, "(none)", "qv reply");
        c.expect(call(ubus_static_mac_qv_del, "qv_del_static_neighbor", nullptr, reply) ==
                     METHOD_NO_JSON_TEXT,
                 "qv_del status");
        c.expect_eq(reply, "(none)", "qv_del reply");
    });
}

TEST_F(StaticMethodsTest, DeleteListReportsOnlyTheLastDelete) {
    expect_isolated([](checks &c) {
        std::string reply;
        call(ubus_static_mac_qv, "qv_static_neighbor",
             R"({"neighbor_list":[{"mac":"00:00:00:00:00:01","ip":"127.0.0.1"},)"
             R"({"mac":"00:00:00:00:00:02","ip":"127.0.0.2"}]})",
             reply);
        call(ubus_static_mac_qv_del, "qv_del_static_neighbor",
             R"({"mac_list":[{"mac":"00:00:00:00:00:01"},{"mac":"00:00:00:00:00:77"}]})", reply);
        c.expect_eq(reply, FAIL, "known then unknown");
        c.expect_eq(list_text(), "00:00:00:00:00:02 127.0.0.2 :: 4", "first deleted");

        call(ubus_static_mac_qv_del, "qv_del_static_neighbor",
             R"({"mac_list":[{"mac":"00:00:00:00:00:77"},{"mac":"00:00:00:00:00:02"}]})", reply);
        c.expect_eq(reply, SUCCESS, "unknown then known");
        c.expect_eq(list_text(), "", "second deleted");

        call(ubus_static_mac_qv_del, "qv_del_static_neighbor", R"({})", reply);
        c.expect_eq(reply, SUCCESS, "without mac_list");
        call(ubus_static_mac_qv_del, "qv_del_static_neighbor", R"({"mac_list":[]})", reply);
        c.expect_eq(reply, SUCCESS, "empty mac_list");
    });
}

// The reload cases start from a list of one node C whose file was then replaced by A and B.
void prepare_reload(checks &c) {
    std::string reply;
    call(ubus_static_mac_qv, "qv_static_neighbor",
         R"({"neighbor_list":[{"mac":"00:00:00:00:00:0c","ip":"127.0.0.12"}]})", reply);
    c.expect_eq(list_text(), "00:00:00:00:00:0c 127.0.0.12 :: 4", "starting list");
    write_file(R"({"static_neighbor":[{"mac":"00:00:00:00:00:0a","ip":"127.0.0.10","ip6":"::"},)"
               R"({"mac":"00:00:00:00:00:0b","ip":"127.0.0.11","ip6":"::"}]})");
}

constexpr const char *RELOADED_LIST =
    "00:00:00:00:00:0b 127.0.0.11 :: 4; 00:00:00:00:00:0a 127.0.0.10 :: 4";
constexpr const char *STARTING_LIST = "00:00:00:00:00:0c 127.0.0.12 :: 4";
constexpr const char *RELOAD_LINE =
    "Tarn update static neighbor by ubus event[userconfig.reload].\n";

// Delivers the event with debug logging on; returns how often the handler announced a reload,
// and the whole log in log.
int deliver(const char *type, const char *message, std::string &log) {
    json_ref parsed = message != nullptr ? parse(message) : nullptr;
    tarn_debug = 1;
    setenv("TARN_LOG_STDERR", "1", 1);
    testing::internal::CaptureStderr();
    ubus_reload_event(type, parsed.get());
    log = testing::internal::GetCapturedStderr();
    tarn_debug = 0;
    int reloads = 0;
    for (size_t at = log.find(RELOAD_LINE); at != std::string::npos;
         at = log.find(RELOAD_LINE, at + 1)) {
        ++reloads;
    }
    return reloads;
}

TEST_F(StaticMethodsTest, ReloadOncePerMatchingName) {
    expect_isolated([](checks &c) {
        std::string log;
        prepare_reload(c);
        c.expect(deliver("userconfig.reload",
                         R"({"ModifiedConfig":["network","static_neighbor.conf"]})", log) == 1,
                 "one reload");
        c.expect_eq(list_text(), RELOADED_LIST, "reloaded list");

        prepare_reload(c);
        c.expect(deliver("userconfig.reload",
                         R"({"ModifiedConfig":["all","static_neighbor.conf"]})", log) == 2,
                 "two reloads");
        c.expect_eq(list_text(), RELOADED_LIST, "reloaded list twice");
    });
}

TEST_F(StaticMethodsTest, ReloadIgnoresOtherNamesAndEmptyEvents) {
    expect_isolated([](checks &c) {
        prepare_reload(c);
        std::string log;
        for (const char *message :
             {R"({"ModifiedConfig":["network","wireless"]})", R"({"ModifiedConfig":[]})",
              R"({"Other":["all"]})", R"({"ModifiedConfig":"all"})",
              R"({"ModifiedConfig":[1,{"all":1}]})"}) {
            c.expect(deliver("userconfig.reload", message, log) == 0, message);
            c.expect_eq(log, "", std::string("log of ") + message);
        }
        deliver("userconfig.reload", nullptr, log);
        c.expect_eq(log, "", "log without message");
        deliver("network.changed", R"({"ModifiedConfig":["all"]})", log);
        c.expect_eq(log, "Tarn do not handle the ubus event[network.changed].\n",
                    "log of another event");
        c.expect_eq(list_text(), STARTING_LIST, "list unchanged");
    });
}

TEST_F(StaticMethodsTest, ReloadOfADeletedFileKeepsTheList) {
    expect_isolated([](checks &c) {
        prepare_reload(c);
        unlink(STATIC_NEIGHBOR_CONF_PATH);
        std::string log;
        c.expect(deliver("userconfig.reload", R"({"ModifiedConfig":["static_neighbor.conf"]})",
                         log) == 1,
                 "reload announced");
        c.expect_eq(list_text(), STARTING_LIST, "list kept");
    });
}

}  // namespace
