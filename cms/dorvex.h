// Public interface of the CMS verification library.
#ifndef DORVEX_H
#define DORVEX_H

#include <stdint.h>

#include "dorvex_errno.h"
#include "vrf_ctx.h"

#endif /* DORVEX_H */
