// The devgateway program's commands, in process and as the real program on
// pipes, checked by what a raw client receives.
#include "Console.h"
#include "DevGateway.h"
#include "HostTesting.h"
#include "RawClient.h"

#include <csignal>
#include <gtest/gtest.h>
#include <sstream>
#include <sys/wait.h>
#include <tuple>

using namespace std::string_literals;

namespace {

std::string Response(const std::string& body) {
    return devgw::WrapResponse(body);
}

// The devgateway program with its standard input and output on pipes.
class Program {
public:
    explicit Program(std::vector<std::string> args) {
        int in[2], out[2];
        if (pipe(in) != 0 || pipe(out) != 0) {
            return;
        }
        m_pid = fork();
        if (m_pid == 0) {
            dup2(in[0], 0);
            dup2(out[1], 1);
            for (int fd : {in[0], in[1], out[0], out[1]}) {
                close(fd);
            }
            std::vector<char*> argv{const_cast<char*>(DEVGATEWAY_PROGRAM)};
            for (auto& arg : args) {
                argv.push_back(arg.data());
            }
            argv.push_back(nullptr);
            execv(DEVGATEWAY_PROGRAM, argv.data());
            _exit(127);
        }
        close(in[0]);
        close(out[1]);
        m_in = in[1];
        m_out = out[0];
    }
    ~Program() {
        if (m_pid > 0) {
            kill(m_pid, SIGKILL);
            waitpid(m_pid, nullptr, 0);
        }
        close(m_in);
        close(m_out);
    }

    void Write(const std::string& text) {
        ASSERT_EQ(write(m_in, text.data(), text.size()), ssize_t(text.size()));
    }
    void CloseInput() {
        close(m_in);
        m_in = -1;
    }
    // One line of output without its line feed ("" after 3 s or at the end).
    std::string ReadLine() {
        std::string line;
        char c;
        pollfd readable{m_out, POLLIN, 0};
        while (poll(&readable, 1, 3000) > 0 && read(m_out, &c, 1) == 1 && c != '\n') {
            line += c;
        }
        return line;
    }
    // Exit status, or -1 when it does not end within 5 s (it is then killed).
    int Wait() {
        const int status = hosttest::WaitForExit(m_pid, 5);
        m_pid = -1;
        return status != -1 && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

private:
    pid_t m_pid = -1;
    int m_in = -1;
    int m_out = -1;
};

} // namespace

TEST(DevGatewayConsole, TokenisesQuotesAndEscapes) {
    const std::tuple<std::string, std::vector<std::string>> cases[] = {
        {"message 7 \"hello world\" 30|Notice 5",
         {"message", "7", "hello world", "30|Notice", "5"}},
        {"  a\\tb  \"\"  c\\x41\\0 ", {"a\tb", "", "cA\0"s}},
        {"say \"a \\\"q\\\" b\"", {"say", "a \"q\" b"}},
        {"", {}},
    };
    for (const auto& [line, tokens] : cases) {
        EXPECT_EQ(devgw::Tokenise(line), tokens) << line;
    }
    std::string bytes;
    EXPECT_TRUE(devgw::FromHex("01 02 0aFF", bytes));
    EXPECT_EQ(bytes, "\x01\x02\x0a\xff");
    EXPECT_FALSE(devgw::FromHex("012", bytes));
    EXPECT_FALSE(devgw::FromHex("0 1", bytes));
    EXPECT_FALSE(devgw::FromHex("zz", bytes));
}

TEST(DevGatewayConsole, CommandsSendExactBytes) {
    devgw::DevGateway gateway;
    RawClient client(gateway.Start());
    ASSERT_TRUE(gateway.WaitForClients(1, 2000));
    devgw::Console console(gateway);
    const std::string data = "CID=5\nSEQ=%\nCRC=2856550370\nLEN=3\nDATA=+,-\n";
    auto frameB = [&](char seq) {
        std::string body = data;
        body[body.find('%')] = seq;
        return "NC_DATA\nContent-length: 42\n\n" + body;
    };
    const std::string connect =
        Response("CMD=CONNECT\nCONNECTION_ID=5\nCONTROL_NAME=ADMIN\nCONTROL_ADDR=host:1\n");
    const std::tuple<std::string, std::string> cases[] = {
        {"message 7 hello 30|Notice 5",
         Response("CMD=MESSAGE\nID=7\nSENDER=admin\nMSG=aGVsbG8AMzB8Tm90aWNlADUA\n")},
        {"config-update 90", Response("CMD=CONFIG_UPDATE\nCMPI=90\n")},
        {"fileinfo notify-customization.lnk sxa-custom.dat 77 12",
         Response("CMD=GETFILEINFO_REPLY\nRESULT=0\nLINK=notify-customization.lnk\n"
                  "FNAME=sxa-custom.dat\nSUB=\nFSIZE=12\nLWT=77\n")},
        {"connect 5 ADMIN host:1", connect},
        {"ncdata-b 5 01 02 03", frameB('1')},
        {"ncdata-a 5 010203", Response("CMD=NC_DATA\nCONNECTION_ID=5\nNC_SEQNO=2\n"
                                       "NC_CRC=2856550370\nNC_LEN=3\nNC_DATA=AQID\n")},
        {"connect 5 ADMIN host:1", connect},
        {"ncdata-b 5 010203", frameB('1')}, // a new session numbers its frames afresh
        {"hangup 5", Response("CMD=HANGUP\nCONNECTION_ID=5\n")},
        {"close", Response("CMD=CLOSE\n")},
        {"body CMD=HEARTBEAT\\n", Response("CMD=HEARTBEAT\n")},
        {"raw X\\r\\n\\x00", "X\r\n\0"s},
    };
    for (const auto& [line, wire] : cases) {
        SCOPED_TRACE(line);
        std::ostringstream answer;
        EXPECT_TRUE(console.Run(line, answer));
        EXPECT_EQ(answer.str(), "sent\n");
        EXPECT_EQ(client.Read(wire.size()), wire);
    }
    const std::pair<std::string, std::string> talk[] = {
        {"clients", "1 client(s) (silent)\n"},
        {"message x hi", "usage: message <id> <text> [<timeout>|<caption> [<flags>]]\n"},
        {"ncdata-a 5 0g", "usage: ncdata-a|ncdata-b <cid> <hex>\n"},
        {"bogus", "unknown command \"bogus\"; try help\n"},
        {"drop", "dropped\n"},
        {"close", "not sent: no client\n"},
    };
    for (const auto& [line, expected] : talk) {
        std::ostringstream answer;
        EXPECT_TRUE(console.Run(line, answer));
        EXPECT_EQ(answer.str(), expected);
    }
    std::ostringstream answer;
    EXPECT_FALSE(console.Run("quit", answer));
}

TEST(DevGatewayProgram, ServesAndPrintsUntilEndOfInput) {
    Program program({"--cmpi", "45", "--port", "0"});
    const std::string listening = program.ReadLine();
    ASSERT_EQ(listening.rfind("listening on 127.0.0.1:", 0), 0u) << listening;
    const int port = std::stoi(listening.substr(listening.rfind(':') + 1));
    RawClient client(port);
    ASSERT_TRUE(client.Send(ClientRequest("CMD=OPEN\nCLIENT_VERSION=1.1\n")));
    const std::string reply = Response("CMD=OPEN_REPLY\nSERVER_VERSION=devgateway 1.0\n"
                                       "RESULT=0\nCMPI=45\nPROTOCOL_VER=1.1\nMAXPACKET=928\n");
    EXPECT_EQ(client.Read(reply.size()), reply);
    EXPECT_EQ(program.ReadLine(), "client 1 connected");
    EXPECT_EQ(program.ReadLine(), "client 1: CMD=OPEN CLIENT_VERSION=1.1");

    program.Write("message 3 hi\n");
    EXPECT_EQ(program.ReadLine(), "sent");
    const std::string message = Response("CMD=MESSAGE\nID=3\nSENDER=admin\nMSG=aGkA\n");
    EXPECT_EQ(client.Read(message.size()), message);

    program.CloseInput();
    EXPECT_EQ(program.Wait(), 0);
    client.ReadToEnd();
    EXPECT_TRUE(client.Ended());
}

TEST(DevGatewayProgram, ExplainsItselfAndRefusesUnknownOptions) {
    Program help({"--help"});
    EXPECT_EQ(help.ReadLine(), "usage: devgateway [options]");
    EXPECT_EQ(help.Wait(), 0);
    Program wrong({"--bogus"});
    EXPECT_EQ(wrong.Wait(), 2);
}
