/* The host's registry of debug commands.
 *
 * A handler runs on the event loop, when an operator asks for the command. It
 * prints to standard output.
 */
#ifndef SSAT_H
#define SSAT_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define SSAT_COMMAND_COUNT_MAX 256u /* commands in the host */

/* The registry casts a handler to what its argument description says:
 * "void ..." to void (*)(void); "NAME=%d ..." to a function of one int. */
typedef void (*ssat_handler_t)(void);

/* Opens the registry for a module; the arguments are those that the host gave
 * to the module's own entry point. 0 on success, -4 where module is null. */
int ssat_lib_init(void *a0, void *module, void *a2, void *a3);

/* Registers one command.
 * module:  as given to the module's entry point
 * name:    unique in the host; copied
 * flags:   0; other values are reserved
 * argdesc: "void  :help" or "NAME=%d  :help"; copied
 * handler: must stay callable until the module is unloaded
 * 0 on success; -4 for a missing name or handler, an argument description of
 * another shape, or flags other than 0; -6 where SSAT_COMMAND_COUNT_MAX commands
 * are registered; -17 for a name that is taken. */
int ssat_reg_mod_cmd(void *module, const char *name, uint32_t flags, const char *argdesc, ssat_handler_t handler);

#ifdef __cplusplus
}
#endif
#endif
