#include "drills/Network.h"

#include <fstream>
#include <map>
#include <utility>

namespace drill {

void Marks::write(const std::string& what, std::size_t count) const
{
    std::ofstream(m_file, std::ios::app) << what + " " + std::to_string(now().count()) + " " + std::to_string(count) +
                                                "\n";
}

Network::Network(const std::string& trouble, Marks marks) : m_marks(std::move(marks))
{
    const std::map<std::string, void (Network::*)()> troubles{
        {"answers", &Network::loseAnswers}, {"hang-ups", &Network::hangUp}, {"silence", &Network::fallSilent}};
    m_thread = std::thread(troubles.at(trouble), this);
}

Network::~Network()
{
    m_over = true;
    m_thread.join();
}

void Network::loseAnswers()
{
    std::size_t marked = 0;
    for (bool goesOn = true; goesOn;) {
        m_relay.lose({server::Proxy::Loss::answer});
        goesOn = wait(std::chrono::milliseconds(50));
        const std::size_t losses = m_relay.losses();
        m_marks.fault(losses - std::exchange(marked, losses));
    }
    m_relay.lose({});
}

void Network::hangUp()
{
    while (wait(std::chrono::milliseconds(200))) {
        m_marks.fault(m_relay.hangUp());
    }
}

void Network::fallSilent()
{
    wait(std::chrono::seconds(2));
    m_marks.fault();
    m_relay.blackHole(true);
    wait(std::chrono::seconds(6));
    m_relay.blackHole(false);
    m_marks.back();
}

bool Network::wait(std::chrono::milliseconds time) const
{
    const auto end = std::chrono::steady_clock::now() + time;
    while (std::chrono::steady_clock::now() < end && !m_over) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return !m_over;
}

} // namespace drill
