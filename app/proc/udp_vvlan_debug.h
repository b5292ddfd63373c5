/* Opening the log, the file that sets its level, and the eight debug commands.
 */
#ifndef UDP_VVLAN_DEBUG_H
#define UDP_VVLAN_DEBUG_H

extern "C" {

/* Opens the category and reads the level file. -17 when the host has no log. */
int udp_vvlan_zlog_init(void);

/* Registers the debug commands; the arguments go to the command library. */
int udp_vvlan_at_init(void *a0, void *module, void *a2, void *a3);

/* Debug commands. They print to standard output. */
void udp_vvlan_show_log_level(void);
void udp_vvlan_set_zlog_level(int level);
void udp_vvlan_dump_glb_cfg(void);
void udp_vvlan_dump_oui(void);
void udp_vvlan_dump_port(void);
void udp_vvlan_dump_port_mac(int ifx);
void udp_vvlan_dump_all_mac(void);
void udp_vvlan_dump_recover_entry(void);
}

#endif
