// Shapes of the documents the service sends and accepts. Only the keys the
// front end reads are typed; everything else is carried through untouched.

export type JsonObject = { [key: string]: unknown };

export interface PCIeInfo {
  SBDF: string;
  VendorName?: string;
  Speed?: string;
  Width?: string;
  DeviceType?: string;
  /** Link capability, same text form as "Speed"/"Width". */
  MaxSpeed?: string;
  MaxWidth?: string;
  /** Speed or width below the capability. */
  Downtrained?: boolean;
  /** Current link state, where known. */
  LTSSM?: string;
  BridgeInfo?: { SecondaryBus?: number; SubordinateBus?: number };
  [key: string]: unknown;
}

export interface PCIeMarginData extends MarginChoices {
  Receivers?: number[];
}

/** One element of "/api/1.0/GetPCIEDeviceListForMargin". */
export interface PCIeDevice {
  PCIeInfo: PCIeInfo;
  PCIeMarginSupported?: boolean;
  /** Why margining is not offered, when "PCIeMarginSupported" is false. */
  PCIeMarginUnsupportedReason?: string;
  PCIeMarginData?: PCIeMarginData;
  SERDES?: { DeviceName?: string; SERDES?: string };
  PCIeCtrlInfo?: { PCIeCore?: unknown; Function?: unknown; DeviceName?: string; Port?: unknown };
  EyeScanSupported?: boolean;
  [key: string]: unknown;
}

export interface TestParams {
  BER: string;
  ErrCnt: number;
  Receiver: number;
  Lanes: number[];
}

/** The error count range and lanes a margin may choose from. */
export interface MarginChoices {
  BER?: string[];
  ErrCnt?: { Max?: number; Min?: number };
  Lanes?: number[];
}

/** One end of an hVL link, as "HVLCtrlInfo" names it; the partner keys say where the link leads. */
export interface HVLCtrlInfo {
  DeviceName: string;
  SERDES: string;
  /** "32Gts". */
  Speed?: string;
  /** " x16", with its leading blank. */
  Width?: string;
  Socket?: number;
  Die?: number;
  PartnerDeviceName?: string;
  PartnerSERDES?: string;
  PartnerSocket?: number;
  PartnerDie?: number;
  /** Lane l of this end meets the partner's lane (highest - l). */
  LaneReversed?: boolean;
  [key: string]: unknown;
}

/** One element of "/api/1.0/GetHVLDeviceListForMargin": one end of a link. */
export interface HVLLink {
  HVLCtrlInfo: HVLCtrlInfo;
  SERDES?: { DeviceName?: string; SERDES?: string };
  HVLDestMarginSupported?: boolean;
  HVLDestMarginData?: MarginChoices;
  EyeScanSupported?: boolean;
  [key: string]: unknown;
}

/** An hVL margin test record as the queue accepts it. */
export interface HVLRecord {
  Operation: 'HVL Destructive Margin';
  HVLCtrlInfo: HVLCtrlInfo;
  SERDES?: HVLLink['SERDES'];
  TestParams: { BER: string; ErrCnt: number; Lanes: number[] };
}

/** A PCIe margin test record as the queue accepts it. */
export interface MarginRecord {
  Operation: 'PCIe Margin';
  PCIeInfo: PCIeInfo;
  PCIeCtrlInfo?: PCIeDevice['PCIeCtrlInfo'];
  SERDES?: PCIeDevice['SERDES'];
  TestParams: TestParams;
}

/** An eye scan record: a PCIe port (its "PCIeInfo") or one end of an hVL link (its "HVLCtrlInfo"). */
export interface EyeScanRecord {
  Operation: 'EyeScan';
  SERDES: { DeviceName?: string; SERDES?: string };
  PCIeInfo?: PCIeInfo;
  PCIeCtrlInfo?: PCIeDevice['PCIeCtrlInfo'];
  HVLCtrlInfo?: HVLCtrlInfo;
  TestParams: { Lanes: number[]; BER: string };
}

export type TestRecord = MarginRecord | HVLRecord | EyeScanRecord;

/**
 * One element of "/api/1.0/GetDeviceListForEyeScan": a PCIe port or one end
 * of an hVL link. "EyeScanData"."BER" holds strings such as "7.65", each
 * standing for a power of two of compared bits.
 */
export interface EyeScanTarget {
  PCIeInfo?: PCIeInfo;
  PCIeCtrlInfo?: PCIeDevice['PCIeCtrlInfo'];
  HVLCtrlInfo?: HVLCtrlInfo;
  SERDES?: { DeviceName?: string; SERDES?: string };
  EyeScanSupported?: boolean;
  EyeScanData?: { BER?: string[]; Lanes?: number[] };
  [key: string]: unknown;
}

/** A lane's eye at the BER floor: sides as coordinates (bottom and left below zero). */
export interface EyeFigures {
  TopMV: number | null;
  BottomMV: number | null;
  LeftUI: number | null;
  RightUI: number | null;
  WidthUI: number | null;
  HeightMV: number | null;
}

export interface EyeLane {
  Lane: number;
  Link: string;
  Device: string;
  Name: string;
  /** Error counts summed over taps and pairs: a row per voltage bin, a value per phase. */
  Counts: number[][];
  Figures: EyeFigures | null;
  /** Address of the lane's eye diagram image. */
  Png: string | null;
}

/** "/api/1.0/GetEyeScanData": one eye scan result's counts, figures and files. */
export interface EyeScanResult {
  Nbits: number;
  Taps: number;
  BerFloor: number;
  /** Phase of each column (UI). */
  PhaseUI: number[];
  /** Centre of each voltage bin (mV), one per row of "Counts". */
  VoltageMV: number[];
  Lanes: EyeLane[];
  Analysis: { Header: string[]; Rows: (string | number | null)[][] };
  AnalysisCsv: string | null;
}

/** Answer of "/api/1.0/AddTestToQueue". */
export interface QueueAnswer {
  OperationStatus: boolean;
  ErrMsg: string;
  /** The ID the queue gave an accepted test. */
  TestID?: number;
}

/** Progress of a running margin, as the queue push carries it. */
export interface Progress {
  LanesDone: number;
  LanesTotal: number;
  Direction: string;
  ElapsedSeconds: number;
  /** null while the service cannot estimate it yet. */
  RemainingSeconds: number | null;
  Percent: number;
  /** Sides walked of all batches; null when the service doesn't say. */
  SidesDone: number | null;
  SidesTotal: number | null;
  /** The lane being margined, where lanes go one after another (hVL). */
  Lane: number | null;
}

/** A queued or running test as the "RunningTestsUpdate" push shows it. */
export interface QueuedTest {
  TestID: number | null;
  Status: 'Queued' | 'Running';
  Operation: string;
  SBDF: string;
  Receiver: string;
  Lanes: string;
  BER: string;
  Progress: Progress | null;
  /** TestID of the test a queued one is held back by. */
  WaitingFor: number | null;
  /** A running test asked to stop. */
  Cancelling: boolean;
  /** Archive id of the test's result, once its folder exists. */
  ResultId: string | null;
}

/** One lane object of "TestOutput"."FullMarginData". */
export interface LaneMargin {
  LaneSerialID?: number;
  LanePCIeNo?: number;
  PhaseLeftMargin?: number;
  PhaseRightMargin?: number;
  VoltTopMargin?: number;
  VoltBotomMargin?: number;
  /** Raw offset records; error_map reads them. */
  PhaseLeftErrorMap?: unknown[];
  PhaseRightErrorMap?: unknown[];
  VoltTopErrorMap?: unknown[];
  VoltBottomErrorMap?: unknown[];
  [key: string]: unknown;
}

export interface ErrorMapEntry {
  Offset: number;
  /** ms; null where the report keeps one dwell per direction (hVL). */
  DwellTime: number | null;
  ErrCnt: number;
  /** What the walk noted at this offset, e.g. "Margin found at boundary". */
  OffsetStatus: string | null;
}

export interface TestOutput {
  Status?: string;
  FailureReason?: string;
  'PhaseRight (UI)'?: number;
  'PhaseLeft (UI)'?: number;
  'VrefTop (mv)'?: number;
  'VrefBot (mv)'?: number;
  Time?: string;
  ResultsFolder?: string;
  FullMarginData?: LaneMargin[];
  [key: string]: unknown;
}

/** A finished test as the archive returns it. */
export interface ResultRecord {
  TestID?: number;
  Operation?: string;
  PCIeInfo?: PCIeInfo;
  HVLCtrlInfo?: Partial<HVLCtrlInfo>;
  SERDES?: { DeviceName?: string; SERDES?: string };
  TestParams?: Partial<TestParams> & { [key: string]: unknown };
  TestOutput?: TestOutput;
  [key: string]: unknown;
}

/** A test that ended since the previous push ("FinishedTests"). */
export interface FinishedPush {
  TestID: number | null;
  Operation: string;
  SBDF: string;
  Status: 'complete' | 'Failed' | 'Cancelled' | string;
  FailureReason: string | null;
  ResultId: string | null;
}

/** Answer of "/api/1.0/EstimateTestDuration" when the service could estimate. */
export interface DurationEstimate {
  /** Nominal seconds on hardware. */
  Seconds: number;
  DwellSeconds: number | null;
  Batches: number | null;
  Lanes: number | null;
}

// --- Results archive: summaries, one result with its grades ---

export type GradeName = 'Fail' | 'Pass' | 'Perfect';

/** A grade of a test or a lane: eye width (left + right) and height (top + bottom). */
export interface Grade {
  Grade: GradeName | null;
  EyeWidthPs?: number | null;
  EyeHeightMV?: number | null;
  /** How width or height were formed when a receiver can't margin both sides apart. */
  Note?: string | null;
}

export interface LaneGrade extends Grade {
  Lane: number;
}

/** Limits the grades were judged against, at the link's speed. */
export interface Thresholds {
  UIps: number;
  EyeWidthMinPs: number;
  EyeWidthRecPs: number;
  EyeHeightMinMV: number;
  EyeHeightRecMV: number;
}

export interface Grades {
  Test?: Grade;
  Lanes?: LaneGrade[];
  Thresholds?: Thresholds;
}

/** One element of "/api/1.0/GetResultsSummary": a test without its per-lane data. */
export interface ResultSummary {
  ResultId: string;
  RunStamp: string;
  /** Finish time "YYYY_MM_DD-HH_MM_SS". */
  Stamp: string;
  TestID: number | null;
  Operation: string;
  Status: string;
  FailureReason: string | null;
  Time: string;
  SBDF: string;
  /** The link end of an hVL test, null for PCIe. */
  Link?: Partial<HVLCtrlInfo> | null;
  Receiver: number | null;
  Lanes: number[];
  BER: string;
  ErrCnt: number | null;
  Speed: string;
  Width: string;
  /** null when the test did not measure (any status but "complete"). */
  PhaseLeftUI: number | null;
  PhaseRightUI: number | null;
  VoltTopMV: number | null;
  VoltBotMV: number | null;
  Grade: Grade | null;
}

export interface ResultsPage {
  Total: number;
  Offset: number;
  Results: ResultSummary[];
}

/** "/api/1.0/GetResult": the archived document with its grades. */
export interface ResultDocument extends ResultRecord {
  PCIeCtrlInfo?: PCIeDevice['PCIeCtrlInfo'];
  Grades?: Grades;
}
