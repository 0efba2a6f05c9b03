"""Order and distribution of tests that mostly wait: the longest first, handed out one by one.

xdist's own scheduler deals out runs of neighbouring tests, which would put the longest ones behind
each other on one worker.
"""

try:
    from xdist.scheduler import LoadScheduling
except ImportError:
    LoadScheduling = object  # the tests also run without xdist, one after the other


def duration_of(item):
    """About how long a test runs in seconds, from its mark `lasts`."""
    mark = item.get_closest_marker("lasts")
    return mark.args[0] if mark else 1


class LongestFirst(LoadScheduling):
    """Expects the collection sorted by falling duration."""

    def schedule(self):
        if self.collection is not None:
            super().schedule()
            return
        if not self._check_nodes_have_same_collection():
            return
        self.collection = list(self.node2collection.values())[0]
        self.pending[:] = range(len(self.collection))
        for node in self.nodes:
            self._send_tests(node, 1)
        # A worker starts a test when it knows the next one; behind a long test waits a short one.
        for node in self.nodes:
            self.pending[:0] = [self.pending.pop()] if self.pending else []
            self._send_tests(node, 1)
        for node in self.nodes:
            self.check_schedule(node)

    def check_schedule(self, node, duration=0):
        if node.shutting_down:
            return
        if not self.pending:
            node.shutdown()
        elif len(self.node2pending[node]) < 2:
            self._send_tests(node, 1)
