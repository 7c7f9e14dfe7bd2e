#pragma once

/// The calling thread's datagram socket for interface and ARP requests (netdevice(7), arp(7)), or
/// -1 with errno set where none can be had. Opened at the first question and kept: a thread of this
/// daemon never leaves its namespace once it has begun to work there, and closing a packet socket
/// instead would cost an RCU grace period each time.
int query_socket();
