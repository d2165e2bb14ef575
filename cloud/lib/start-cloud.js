// The whole cloud of one device: the three servers, started in the order in which they need each other.

import { loadDevice } from './device.js';
import { startDiscovery } from './discovery.js';
import { startIdentityProvider } from './identity-provider.js';
import { startKeyService } from './key-service.js';

/** Gives the addresses in the form of the ready line, and stop(). Throws when the device or a port is unusable. */
export async function startCloud({ directory, ports, scopes, tokenLifetime, log }) {
  const device = loadDevice(directory);
  const identityProvider = await startIdentityProvider({
    device, scopes, tokenLifetime, port: ports.identityProvider, log,
  });
  const { wellKnownUrl } = identityProvider;
  const discovery = await startDiscovery({ device, wellKnownUrl, port: ports.discovery, log });
  const keyService = await startKeyService({ device, port: ports.keyService, log });
  return {
    addresses: `discovery=${discovery.url} issuer=${identityProvider.issuer} key-service=${keyService.port}`,
    stop: () => Promise.all([identityProvider, discovery, keyService].map((server) => server.stop())),
  };
}
