// The public header by itself, as C++20. Compiled with every warning an error.
#include <liborvel.h>

#include <type_traits>

static_assert(std::is_standard_layout_v<ovl_settings> && std::is_trivial_v<ovl_settings>);
static_assert(std::is_standard_layout_v<ovl_result> && std::is_trivial_v<ovl_result>);
