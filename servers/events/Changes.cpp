#include <events/Changes.h>

#include <memory>

namespace oryx::sip {

Changes::Changes(Loop& loop, std::optional<Notifier>& notifier) : m_loop(loop), m_notifier(notifier)
{
    loop.watch(m_bell.descriptor(), [this] { tell(); });
}

Changes::~Changes()
{
    m_loop.unwatch(m_bell.descriptor());
    delete m_news.load();
}

void Changes::hear(const ChangeSet& changes)
{
    std::unique_ptr<News> news(m_news.exchange(nullptr)); // with what has not been told yet
    if (!news) {
        news = std::make_unique<News>();
    }
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
    m_news = news.release();
    m_bell.ring();
}

void Changes::tell()
{
    m_bell.await();
    const std::unique_ptr<News> news(m_news.exchange(nullptr));
    if (news) {
        for (const std::string& presentity : news->presentities) {
            m_notifier->publicationChanged(presentity);
        }
    }
    if (news && news->anything) {
        m_notifier->lookAgain();
    }
}

} // namespace oryx::sip
