#include <common/Loop.h>

#include <mutex>
#include <new>
#include <stdexcept>
#include <utility>

namespace oryx::sip {

struct Loop::Watch {
    std::function<void()> ready;
    int descriptor = -1;
    su_wait_t wait{};
    int index = -1;
};

Loop::Loop()
{
    static std::once_flag begun;
    std::call_once(begun, [] {
        su_init();
        // The stack tells of every peer that is not there, as often as anybody likes: whoever reads that slowly, or not
        // at all, would hold the server up. NTA_DEBUG and TPORT_DEBUG have it talk all the same.
        su_log_set_level(su_log_default, 0);
    });
    m_root = su_root_create(nullptr);
    if (m_root == nullptr) {
        throw std::bad_alloc();
    }
    su_root_threading(m_root, 0);
}

Loop::~Loop()
{
    su_root_destroy(m_root);
}

void Loop::watch(int descriptor, std::function<void()> ready)
{
    auto watch = std::make_unique<Watch>();
    watch->ready = std::move(ready);
    watch->descriptor = descriptor;
    su_wait_create(&watch->wait, descriptor, SU_WAIT_IN);
    const auto wakeUp = [](void*, su_wait_t*, void* self) {
        static_cast<Watch*>(self)->ready();
        return 0;
    };
    watch->index = su_root_register(m_root, &watch->wait, wakeUp, watch.get(), 0);
    if (watch->index < 0) {
        throw std::runtime_error("no room to watch a descriptor");
    }
    m_watches.push_back(std::move(watch));
}

void Loop::unwatch(int descriptor)
{
    std::erase_if(m_watches, [&](const std::unique_ptr<Watch>& watch) {
        return watch->descriptor == descriptor && su_root_deregister(m_root, watch->index) >= 0;
    });
}

Timer::Timer(const Loop& loop, std::function<void()> call)
    : m_call(std::move(call)), m_timer(su_timer_create(su_root_task(loop.root()), 0))
{
    if (m_timer == nullptr) {
        throw std::bad_alloc();
    }
}

void Timer::set(std::chrono::milliseconds after)
{
    su_timer_set_interval(m_timer, &Timer::expired, this, after.count());
}

void Timer::expired(void* /*magic*/, su_timer_t* /*timer*/, void* self)
{
    const std::function<void()> call = static_cast<Timer*>(self)->m_call; // which may end the timer
    call();
}

} // namespace oryx::sip
