// The page's one WebSocket to "/ws" on the page's own host and port. When it
// drops it comes back by itself, waiting a little longer after each failure.

export type SocketState =
  | { kind: 'connecting' }
  | { kind: 'up' }
  | { kind: 'down'; retryInSeconds: number; attempt: number };

const FIRST_DELAY_MS = 500;
const LONGEST_DELAY_MS = 10_000;

/** Wait before reconnect attempt n (0-based): doubling from 0.5 s, at most 10 s. */
export function backoff_ms(attempt: number): number {
  return Math.min(LONGEST_DELAY_MS, FIRST_DELAY_MS * 2 ** Math.max(0, attempt));
}

export function socket_url(location: { protocol: string; host: string }): string {
  return `${location.protocol === 'https:' ? 'wss' : 'ws'}://${location.host}/ws`;
}

export class LiveSocket {
  private socket: WebSocket | null = null;
  private attempt = 0;
  private timer: ReturnType<typeof setTimeout> | null = null;
  private closed = false;

  constructor(
    private readonly url: string,
    private readonly onMessage: (text: string) => void,
    private readonly onState: (state: SocketState) => void,
  ) {}

  open(): void {
    this.closed = false;
    this.connect();
  }

  close(): void {
    this.closed = true;
    if (this.timer !== null) clearTimeout(this.timer);
    this.socket?.close();
  }

  private connect(): void {
    this.onState({ kind: 'connecting' });
    const socket = new WebSocket(this.url);
    this.socket = socket;
    socket.onopen = () => {
      this.attempt = 0;
      this.onState({ kind: 'up' });
    };
    socket.onmessage = (event) => {
      if (typeof event.data === 'string') this.onMessage(event.data);
    };
    // An error is always followed by close; reconnecting is decided there.
    socket.onclose = () => {
      if (this.socket !== socket || this.closed) return;
      const delay = backoff_ms(this.attempt);
      this.attempt++;
      this.onState({ kind: 'down', retryInSeconds: Math.ceil(delay / 1000), attempt: this.attempt });
      this.timer = setTimeout(() => this.connect(), delay);
    };
  }
}
