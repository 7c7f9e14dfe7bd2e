#pragma once

/// The calling thread's datagram socket for interface and ARP requests (netdevice(7), arp(7)), or
/// -1 with errno set where none can be had. Opened at the first question and kept, so a thread must
/// ask in one network namespace only; closing it after each question would cost an RCU grace period
/// each time.
int query_socket();
