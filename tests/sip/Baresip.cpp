#include "sip/Baresip.h"

#include "sip/Phone.h"

#include <arpa/inet.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <thread>

namespace {

std::filesystem::path newFolder()
{
    std::string name = (std::filesystem::temp_directory_path() / "oryx-baresip-XXXXXX").string();
    if (mkdtemp(name.data()) == nullptr) {
        throw std::runtime_error("no folder");
    }
    return name;
}

void write(const std::filesystem::path& file, const std::string& text)
{
    std::ofstream(file) << text;
}

/// What else it says at first is of no interest.
void awaitReadiness(Program& telephone)
{
    while (telephone.line(30) != "baresip is ready.") {
    }
}

/// A minute of a tone, as a telephone line has it: 8,000 samples of 16 bits a second.
void writeTone(const std::filesystem::path& file)
{
    constexpr std::uint32_t kBytes = 60 * 16000;
    std::ofstream out(file, std::ios::binary);
    const auto number = [&](std::uint32_t value, int bytes) {
        for (; bytes > 0; --bytes, value >>= 8U) {
            out.put(static_cast<char>(value & 0xffU));
        }
    };
    out << "RIFF";
    number(36 + kBytes, 4);
    out << "WAVEfmt ";
    for (const auto& [value, bytes] :
         {std::pair(16U, 4), {1U, 2}, {1U, 2}, {8000U, 4}, {16000U, 4}, {2U, 2}, {16U, 2}}) {
        number(value, bytes);
    }
    out << "data";
    number(kBytes, 4);
    for (std::uint32_t sample = 0; sample < kBytes / 2; ++sample) {
        number(sample / 9 % 2 == 0 ? 6000 : 59536, 2);
    }
}

int connectTo(int port)
{
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(static_cast<std::uint16_t>(port));
    to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const int descriptor = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (connect(descriptor, reinterpret_cast<sockaddr*>(&to), sizeof to) == 0) {
        return descriptor;
    }
    close(descriptor);
    throw std::runtime_error("the telephone does not answer");
}

} // namespace

Baresip::Baresip(const std::string& accounts, const std::string& contacts) : m_folder(newFolder())
{
    const int control = phone::freePort();
    const std::string sip = "127.0.0.1:" + std::to_string(phone::freePort());
    write(m_folder / "config",
          "sip_listen " + sip + "\nnet_interface 127.0.0.1\nctrl_tcp_listen 127.0.0.1:" + std::to_string(control) +
              "\nmodule_path /usr/lib/baresip/modules\nmodule g711.so\nmodule aufile.so\nmodule aubridge.so\n"
              "module sndfile.so\nmodule account.so\nmodule menu.so\nmodule ctrl_tcp.so\nmodule contact.so\n"
              "module presence.so\naudio_source aufile," +
              (m_folder / "tone.wav").string() +
              "\naudio_player aubridge,nobody\naudio_alert aubridge,nobody\n"
              "sndfile_path " +
              m_folder.string() + "\n");
    writeTone(m_folder / "tone.wav");
    write(m_folder / "accounts", accounts);
    write(m_folder / "contacts", contacts);
    m_program = std::make_unique<Program>("/usr/bin/baresip", std::vector<std::string>{"-f", m_folder.string()},
                                          std::vector<std::string>{}, m_folder.string());
    awaitReadiness(*m_program);
    m_control = connectTo(control);
}

Baresip::Baresip(const std::string& user, int proxy, const std::string& password, int seconds) : Baresip("", "")
{
    // Only now, so that all is heard of it.
    command("uanew", "<sip:" + user + "@oryx.example>;auth_user=" + user +
                         ";auth_pass=" + (password.empty() ? user : password) + R"(;outbound=\"sip:127.0.0.1:)" +
                         std::to_string(proxy) + R"(\";regint=)" + std::to_string(seconds) + ";audio_codecs=PCMU");
}

std::unique_ptr<Baresip> Baresip::withPresence(const std::string& user, int server, const std::string& watched)
{
    const std::string account = "<sip:" + user + "@oryx.example>;auth_user=" + user + ";auth_pass=" + user +
                                ";outbound=\"sip:127.0.0.1:" + std::to_string(server) +
                                "\";regint=0;pubint=60;audio_codecs=PCMU\n";
    const std::string contact = watched.empty() ? "" : "\"Watched\" <sip:" + watched + ">;presence=p2p\n";
    return std::unique_ptr<Baresip>(new Baresip(account, contact));
}

Baresip::~Baresip()
{
    close(m_control);
    m_program.reset();
    std::error_code ignored;
    std::filesystem::remove_all(m_folder, ignored);
}

void Baresip::command(const std::string& name, const std::string& parameters)
{
    const std::string json = R"({"command":")" + name + R"(","params":")" + parameters + R"(","token":"t"})";
    const std::string text = std::to_string(json.size()) + ":" + json + ",";
    if (send(m_control, text.data(), text.size(), MSG_NOSIGNAL) < 0) {
        throw std::runtime_error("the telephone has gone");
    }
}

bool Baresip::read(int milliseconds)
{
    pollfd control{m_control, POLLIN, 0};
    if (poll(&control, 1, milliseconds) <= 0) {
        return false;
    }
    std::array<char, 4096> text{};
    const ssize_t size = recv(m_control, text.data(), text.size(), 0);
    m_said.append(text.data(), size > 0 ? static_cast<std::size_t>(size) : 0);
    return size > 0;
}

bool Baresip::tells(const std::string& event, int seconds)
{
    const std::string wanted = R"("type":")" + event + "\"";
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    for (;;) {
        const std::size_t at = m_said.find(wanted, m_seen);
        if (at != std::string::npos) {
            m_seen = at + wanted.size();
            return true;
        }
        if (std::chrono::steady_clock::now() > end) {
            return false;
        }
        read(100);
    }
}

bool Baresip::reaches(Baresip& bob)
{
    command("dial", "sip:bob@oryx.example");
    if (!bob.tells("CALL_INCOMING")) {
        return false;
    }
    bob.command("accept");
    return bob.tells("CALL_ESTABLISHED") && tells("CALL_ESTABLISHED");
}

bool Baresip::sees(const std::string& presence, int seconds)
{
    for (int look = 0; look < seconds * 10; ++look) {
        m_said.clear();
        m_seen = 0;
        command("contacts");
        while (read(100)) {
        }
        if (m_said.find(presence) != std::string::npos) {
            return true;
        }
    }
    return false;
}

bool Baresip::hears(int seconds) const
{
    const double before = heard();
    for (int look = 0; look < seconds * 10; ++look) {
        if (heard() > before + 0.5) {
            return true;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    return false;
}

/// The bytes of the file that are no silence, at 8,000 samples of two bytes a second.
double Baresip::heard() const
{
    double bytes = 0;
    for (const auto& entry : std::filesystem::directory_iterator(m_folder)) {
        if (entry.path().filename().string().ends_with("-dec.wav")) {
            std::ifstream in(entry.path(), std::ios::binary);
            const std::string data{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
            for (const char byte : data) {
                bytes += byte != 0 ? 1 : 0;
            }
        }
    }
    return bytes / 16000;
}
