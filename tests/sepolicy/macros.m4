# The platform's macros, as far as the service's policy uses them. The build is one for debugging that
# measures coverage: it grants more than any other.
define(`userdebug_or_eng', `$1')
define(`with_native_coverage', `$1')

define(`capability_class_set', `{ capability capability2 cap_userns cap2_userns }')
define(`socket_class_set',
    `{ socket tcp_socket unix_stream_socket unix_dgram_socket netlink_route_socket alg_socket }')
define(`file_class_set', `{ chr_file blk_file file lnk_file sock_file fifo_file }')

define(`r_file_perms', `{ getattr open read ioctl lock map watch watch_reads }')
define(`w_file_perms', `{ open append write lock map }')
define(`rw_file_perms', `{ r_file_perms w_file_perms }')
define(`create_file_perms', `{ create rename setattr unlink rw_file_perms }')
define(`r_dir_perms', `{ open getattr read search ioctl lock watch watch_reads }')
define(`w_dir_perms', `{ open search write add_name remove_name lock }')
define(`rw_dir_perms', `{ r_dir_perms w_dir_perms }')
define(`create_dir_perms', `{ create reparent rename rmdir setattr rw_dir_perms }')
define(`no_w_file_perms', `{ append create link unlink relabelfrom rename setattr write }')
define(`no_rw_file_perms',
    `{ no_w_file_perms open read ioctl lock watch watch_mount watch_sb watch_with_perm watch_reads }')
define(`no_w_dir_perms',
    `{ add_name create link relabelfrom remove_name rename reparent rmdir setattr write }')

define(`r_dir_file', `
allow $1 $2:dir r_dir_perms;
allow $1 $2:{ file lnk_file } r_file_perms;
')
define(`domain_auto_trans', `
allow $1 $2:file { getattr open read execute map };
allow $1 $3:process { rlimitinh siginh transition };
allow $3 $2:file { entrypoint open read execute getattr map };
dontaudit $1 $3:process noatsecure;
type_transition $1 $2:process $3;
')
define(`init_daemon_domain', `domain_auto_trans(init, $1_exec, $1)')
define(`unix_socket_connect', `
allow $1 $2_socket:sock_file write;
allow $1 $3:unix_stream_socket connectto;
')
define(`get_prop', `allow $1 $2:file { getattr open read map };')
define(`set_prop', `
unix_socket_connect($1, property, init)
allow $1 $2:property_service set;
get_prop($1, $2)
')
define(`vendor_internal_prop', `
type $1, property_type, vendor_property_type, vendor_internal_property_type;
neverallow { coredomain -init } $1:file no_rw_file_perms;
')
