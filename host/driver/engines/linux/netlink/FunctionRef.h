// A reference to a callable object, for parameters. Unlike std::function it never allocates, so
// passing one cannot fail half-way through an exchange with the kernel.
#pragma once

#include <memory>
#include <type_traits>
#include <utility>

namespace vxi {

template <typename Signature>
class FunctionRef;

// Valid as long as the object that it refers to: do not keep it beyond the call.
template <typename Result, typename... Arguments>
class FunctionRef<Result(Arguments...)> {
public:
    template <typename Callable,
              typename = std::enable_if_t<!std::is_same_v<std::decay_t<Callable>, FunctionRef>>>
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
