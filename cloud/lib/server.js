// Servers on the loopback interface that can be stopped at any moment.

import { once } from 'node:events';

export const LOOPBACK = '127.0.0.1';

/** Starts a server on a port (0: any free one); gives the real port and stop(). Throws when the port is taken. */
export async function listen(server, port) {
  const sockets = new Set();
  server.on('connection', (socket) => {
    sockets.add(socket);
    socket.once('close', () => sockets.delete(socket));
  });
  server.listen(port, LOOPBACK);
  await once(server, 'listening');

  const stop = async () => {
    const closed = once(server, 'close');
    server.close();
    // close() alone waits for clients that keep their connections open.
    sockets.forEach((socket) => socket.destroy());
    await closed;
  };
  return { port: server.address().port, stop };
}

/** Logs each request of an HTTP handler without its query. The line comes before the reply: who has it can count. */
export function logRequests(name, log, handler) {
  return (request, response) => {
    const { writeHead } = response;
    response.writeHead = (status, ...rest) => {
      log(`${name} ${request.method} ${pathOf(request)} ${status}`);
      return writeHead.call(response, status, ...rest);
    };
    return handler(request, response);
  };
}

export const pathOf = (request) => request.url.split('?')[0];
