// The C++ header by itself. Compiled with every warning an error.
#include <liborvel.hpp>

#include <type_traits>

template <class Owner>
constexpr bool moves_only = std::is_nothrow_move_constructible_v<Owner>&& std::is_nothrow_move_assignable_v<Owner> &&
                            !std::is_copy_constructible_v<Owner> && !std::is_copy_assignable_v<Owner>;
static_assert(moves_only<ovl::Decoder> && moves_only<ovl::Transmitter> && moves_only<ovl::Audio>);
