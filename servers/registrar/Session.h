#pragma once

#include <common/Session.h>

#include <dal/LocationService.h>
#include <dal/Registration.h>

#include <cstddef>
#include <memory>
#include <utility>
#include <vector>

namespace oryx::sip {

/// What a worker of the registrar holds; also the registrations that its tasks have left to be applied together.
class Session : public SessionOf<LocationService> {
public:
    using SessionOf::SessionOf;

    /// Takes a registration; the answer is there once `settle` has applied it.
    std::shared_ptr<const RegisterAnswer> leave(const Address& address, RegisterRequest&& request)
    {
        m_answers.push_back(std::make_shared<RegisterAnswer>());
        m_left.push_back({address.handle, address.domain, std::move(request), {}});
        return m_answers.back();
    }
    /// Applies what was left, for each address of record in order.
    void settle()
    {
        applyRegistrations(service(), m_left);
        for (std::size_t i = 0; i < m_left.size(); ++i) {
            *m_answers[i] = std::move(m_left[i].answer);
        }
        m_left.clear();
        m_answers.clear();
    }

private:
    std::vector<Registration> m_left;
    std::vector<std::shared_ptr<RegisterAnswer>> m_answers;
};

} // namespace oryx::sip
