// A reference to something callable, for parameters: unlike std::function it never
// allocates, so passing one cannot fail half-way through an exchange with the kernel.
#pragma once

#include <memory>
#include <type_traits>
#include <utility>

namespace vxi {

template <class Signature>
class FunctionRef;

// Valid while what it was made from lives; take it as a parameter, do not keep it.
template <class Result, class... Arguments>
class FunctionRef<Result(Arguments...)> {
public:
    template <class Callable,
              class = std::enable_if_t<!std::is_same_v<std::decay_t<Callable>, FunctionRef>>>
    FunctionRef(Callable&& callable)
        : m_object(const_cast<void*>(static_cast<const void*>(std::addressof(callable)))),
          m_call([](void* object, Arguments... arguments) -> Result {
              using Target = std::remove_reference_t<Callable>;
              return (*static_cast<Target*>(object))(std::forward<Arguments>(arguments)...);
          })
    {
    }

    Result operator()(Arguments... arguments) const
    {
        return m_call(m_object, std::forward<Arguments>(arguments)...);
    }

private:
    void* m_object;
    Result (*m_call)(void*, Arguments...);
};

}  // namespace vxi
