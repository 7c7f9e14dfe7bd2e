#pragma once

#include "host/packets.h"

/// The calling thread's datagram socket for interface and ARP requests (netdevice(7), arp(7)).
/// Opened at the first question and kept, so a thread must ask in one network namespace only;
/// closing it after each question would cost an RCU grace period each time.
host::OpenedSocket query_socket();
