"""Everything that one test or one module starts, and the one place where all of it ends."""

from .configuration import configuration, file_provider
from .fake_cloud import FakeCloud
from .fake_key_service import FakeKeyService
from .ports import ReservedPort
from .service import Service


class World:
    def __init__(self, executable, device, folder):
        self.device = device
        self.folder = folder
        self._executable = executable
        self._services = []
        self._clouds = []
        self._key_services = []
        self._others = []
        self._ports = []

    def new_folder(self, name):
        folder = self.folder / name
        folder.mkdir(parents=True)
        return folder

    def new_port(self):
        return self.reserve_port().number

    def reserve_port(self):
        self._ports.append(ReservedPort())
        return self._ports[-1]

    def new_cloud(self, device=None):
        self._clouds.append(FakeCloud(device or self.device))
        return self._clouds[-1]

    def new_key_service(self, device=None):
        self._key_services.append(FakeKeyService(device or self.device))
        return self._key_services[-1]

    def closing(self, server):
        """A server that a test has made itself is closed with the rest."""
        self._others.append(server)
        return server

    def document(self, url, provider=None, ports=None, **more):
        """A good configuration: the device's files and one API port unless told otherwise."""
        return configuration(url, provider or file_provider(self.device),
                             [self.new_port()] if ports is None else ports, **more)

    def start(self, document, **options):
        folder = self.new_folder(f"service-{len(self._services) + 1}")
        self._services.append(Service(self._executable, folder, document, **options))
        return self._services[-1]

    def start_ready(self, cloud, level="verbose", **options):
        return self.start(self.document(cloud.discovery_url, level=level), **options).wait_ready()

    def close(self):
        """Clouds and key services first: whoever is held up by them comes free."""
        for other in [*self._clouds, *self._key_services, *self._others]:
            other.close()
        failures = []
        for service in self._services:
            try:
                service.close()
            except AssertionError as failure:
                failures.append(str(failure))
        for port in self._ports:
            port.close()
        assert not failures, "\n".join(failures)
        faults = [fault for cloud in self._clouds for fault in cloud.faults]
        assert not faults, f"the token endpoint was sent a bad assertion: {faults}"
