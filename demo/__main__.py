"""The demo, once everything is installed and built (scripts/demo sees to that): python3 demo [--keep] [--with bird], as
root."""

import sys

import isolation
import network
import router
import story
import watch

WHAT_TO_DO_NOW = """
The lab stays up; process {pid} is its first one.
  a shell in it       sudo {enter} ip netns exec router bash      (or client, isp1, isp2, far)
  the log             sudo {enter} tail -f /run/demo/log
  the fragment        sudo {enter} cat /usr/etc/routing-wlb.conf
  the kernel's routes sudo {enter} ip -n router route
  traffic             sudo {enter} ip netns exec client python3 {here}/traffic.py ask 203.0.113.10
  an outage           sudo {enter} ip -n isp1 route replace blackhole 203.0.113.0/24
  its end             sudo {enter} ip -n isp1 route replace 203.0.113.0/24 via 10.1.0.2
  end the lab         sudo kill {pid}"""


def lab(keep, with_bird):
    router.LAB_DIR.mkdir()
    router.OUTPUT_DIR.mkdir()
    network.build()
    timeline = watch.Timeline()
    the_router = router.Router(with_bird)
    the_watch = watch.Watch(timeline, the_router)
    try:
        the_router.start()
        story.Story(timeline, the_watch).tell()
        the_router.report()
        print(f"What the uplinks did in this run, as lbwatch reports it to a provider: {router.REPORT.relative_to(router.HERE.parent)}")
    except (RuntimeError, OSError) as error:
        print(f"\ndemo: {error}\nThe last messages in the lab's log:", file=sys.stderr)
        print("\n".join(f"  {line}" for line in the_watch.log.last_lines), file=sys.stderr)
        return 1
    if keep:
        the_router.start_watcher()
        keep()
        while True:
            the_watch.for_a_while(60)
    return 0


def main(arguments):
    wants_keep, with_bird = "--keep" in arguments, "--with" in arguments
    status, kept_pid = isolation.run(lambda keep: lab(keep if wants_keep else None, with_bird))
    if kept_pid:
        enter = f"nsenter --target {kept_pid} --mount --pid"
        print(WHAT_TO_DO_NOW.format(pid=kept_pid, enter=enter, here=router.HERE))
    return status


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
