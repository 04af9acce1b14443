/* Installs the TBB do-par-for in the runtime's slot when the module is
 * loaded, before any export can be called.  That slot is the library's only
 * mutable global and it is written here, once.  Nothing else happens at
 * load: no thread is created, no environment variable is read, and TBB
 * starts on first use.  Nothing runs at unload. */
#include "par_for.h"

__attribute__((constructor)) static void tm_install_do_par_for(void) {
    (void)halide_set_custom_do_par_for(tm_do_par_for);
}

/* Referenced by the frame so that a static link pulls this object, and
 * with it the constructor, into every program that calls an export. */
const int tm_load_hook_anchor = 1;
