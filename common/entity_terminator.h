// The text that ends an entity, if the settings ask for one: two settings that belong together.
//
// SIGUSR1 rewrites both while threads read bodies. Who takes them here gets both from before or both from
// after: a flag with the other one's text would make a reader wait for a text that never comes, or meet the
// assertion that the text is not empty.
#ifndef RDX_COMMON_ENTITY_TERMINATOR_H
#define RDX_COMMON_ENTITY_TERMINATOR_H

#include "common/config.h"
#include "common/shared.h"

#include <string_view>

namespace rdx {

struct EntityTerminator {
    bool used;
    SharedText<CONFIG_TERMINATOR_SIZE> text;

    // The text where it is used, else nothing.
    std::string_view View() const { return used ? text.View() : std::string_view(); }
};

EntityTerminator LoadEntityTerminator();

// What is switched off goes first, what is switched on last, for those who read the settings one by one.
void StoreEntityTerminator(bool used, std::string_view text);

} // namespace rdx

#endif
