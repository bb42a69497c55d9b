import pytest


@pytest.fixture(scope="session")
def client():
    """A local distributed cluster of two workers in this process, over in-process transport, no sockets."""
    distributed = pytest.importorskip("distributed")
    with distributed.LocalCluster(n_workers=2, threads_per_worker=1, processes=False,
                                  dashboard_address=None) as cluster, distributed.Client(cluster) as client:
        yield client
