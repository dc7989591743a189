import type { SocketState } from '../socket';

export type Screen = 'devices' | 'new' | 'hvl' | 'eye' | 'queue' | 'results' | LinkScreen | 'pci' | 'aspm' | 'counters';
// Port status and link control.
export type LinkScreen = 'ports' | 'links';

const TABS: { screen: Screen; label: string }[] = [
  { screen: 'devices', label: 'Devices' },
  { screen: 'new', label: 'New test' },
  { screen: 'hvl', label: 'hVL links' },
  { screen: 'eye', label: 'Eye scan' },
  { screen: 'queue', label: 'Queue' },
  { screen: 'results', label: 'Results' },
  { screen: 'ports', label: 'Port status' },
  { screen: 'links', label: 'Link control' },
  { screen: 'pci', label: 'PCI viewer' },
  { screen: 'aspm', label: 'ASPM' },
  { screen: 'counters', label: 'Counters' },
];

function connection_text(state: SocketState): string {
  switch (state.kind) {
    case 'up':
      return 'Live';
    case 'connecting':
      return 'Connecting…';
    case 'down':
      return `Disconnected – retrying in ${state.retryInSeconds}s`;
  }
}

interface Props {
  version: string | null;
  versionError: string | null;
  socket: SocketState;
  screen: Screen;
  queueCount: number;
}

export function Header({ version, versionError, socket, screen, queueCount }: Props) {
  return (
    <header class="header">
      <div class="brand">
        <span class="name">Lanewright</span>
        <span class="version" title={versionError ?? undefined} data-testid="version">
          {version !== null ? `v${version}` : versionError ? 'version unknown' : ''}
        </span>
      </div>
      <nav class="tabs">
        {TABS.map((tab) => (
          <a key={tab.screen} href={`#${tab.screen}`} class={tab.screen === screen ? 'tab active' : 'tab'}>
            {tab.label}
            {tab.screen === 'queue' && <span class={queueCount > 0 ? 'count busy' : 'count'}>{queueCount}</span>}
          </a>
        ))}
      </nav>
      <div class={`connection ${socket.kind}`} data-testid="connection" role="status">
        <span class="dot" />
        {connection_text(socket)}
      </div>
    </header>
  );
}
