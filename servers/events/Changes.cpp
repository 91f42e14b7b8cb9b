#include <events/Changes.h>

#include <chrono>
#include <thread>
#include <utility>

namespace oryx::sip {

void Changes::hear(const ChangeSet& changes)
{
    auto news = std::make_unique<News>();
    for (const ChangedTable& table : changes.tables) {
        // What a domain or a subscriber is like is nobody's presence; rules and lists have one name.
        news->anything = news->anything || table.name == "public_address" || table.name == "access_control_list" ||
                         (table.name == "publication" && table.readAgain);
        for (const DatabaseUpdate& row : table.rows) {
            if (table.name == "publication") {
                news->presentities.insert(row.strpkey());
            }
        }
    }
    constexpr std::chrono::milliseconds kPause{1};
    while (!m_news.push(news) && !m_stopped) {
        std::this_thread::sleep_for(kPause);
    }
    m_bell.ring();
}

void Changes::tell(Loop& loop, Notifier& notifier)
{
    loop.watch(m_bell.descriptor(), [this, &notifier] {
        m_bell.await();
        for (std::unique_ptr<News> news = m_news.pop(); news; news = m_news.pop()) {
            if (news->anything) {
                notifier.lookAgain();
                continue;
            }
            for (const std::string& presentity : news->presentities) {
                notifier.publicationChanged(presentity);
            }
        }
    });
}

} // namespace oryx::sip
