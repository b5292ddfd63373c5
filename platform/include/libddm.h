/* Port-id mapping: interface index (ifx), the key of configuration, to
 * physical port id (phyid), the key of the forwarding plane, and back.
 *
 * Both are plain 32-bit numbers in host byte order; the host's configuration
 * says which belong together. The mapping is one to one.
 */
#ifndef LIBDDM_H
#define LIBDDM_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Opens the mapping for a module. ctx: the global context; name: the module's
 * name, for log lines. 0 on success. */
int libddm_init(void *ctx, const char *name);

/* Look one up. 0 on success; -7 for an unknown port, -4 for a null result
 * pointer. The result is written on success only. */
int libddm_get_phyid_by_ifx(uint32_t ifx, uint32_t *phyid);
int libddm_get_ifx_by_phyid(uint32_t phyid, uint32_t *ifx);

#ifdef __cplusplus
}
#endif
#endif
