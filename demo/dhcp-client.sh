#!/bin/sh
# What udhcpc does with a lease in the lab: the address goes to the interface, the router into the lease file that the
# balancing daemon reads. No default route: that is the daemon's business.
case "$1" in
  bound | renew)
    ip address replace "$ip/$mask" dev "$interface" &&
      "$LB_LEASE" -f "$LB_CONF" "$interface" $router
    ;;
esac
